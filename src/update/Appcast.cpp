#include "Appcast.h"

#include <QCoreApplication>
#include <QLocale>
#include <QStringList>
#include <QXmlStreamReader>

#include <algorithm>

namespace ostrand {

namespace {

const QString sparkleNs = QStringLiteral("http://www.andymatuschak.org/xml-namespaces/sparkle");

bool isSparkle(const QXmlStreamReader& xml, QStringView name) {
    return xml.namespaceUri() == sparkleNs && xml.name() == name;
}

QDateTime parseRfc822(const QString& text) {
    QString t = text.simplified();
    // "Mon, 23 Nov 2026 16:00:00 +0000": drop the day name, which Qt cannot
    // be told to ignore.
    if (const qsizetype comma = t.indexOf(QLatin1Char(',')); comma >= 0) {
        t = t.mid(comma + 1).trimmed();
    }
    QDateTime parsed = QLocale::c().toDateTime(t, QStringLiteral("d MMM yyyy HH:mm:ss t"));
    if (!parsed.isValid()) {
        parsed = QDateTime::fromString(t, Qt::RFC2822Date);
    }
    return parsed;
}

QString rfc822(const QDateTime& when) {
    return QLocale::c().toString(when.toUTC(), QStringLiteral("ddd, dd MMM yyyy HH:mm:ss")) +
           QStringLiteral(" +0000");
}

void readEnclosure(const QXmlStreamReader& xml, AppcastItem& item) {
    const QXmlStreamAttributes a = xml.attributes();
    item.url = QUrl(a.value(QStringLiteral("url")).toString().trimmed());
    bool ok = false;
    item.length = a.value(QStringLiteral("length")).toLongLong(&ok);
    if (!ok) {
        item.length = -1;
    }
    item.type = a.value(QStringLiteral("type")).toString();
    item.os = a.value(sparkleNs, QStringLiteral("os")).toString();
    item.edSignature = a.value(sparkleNs, QStringLiteral("edSignature")).toString();
    // Older feeds put the versions on the enclosure.
    if (item.version.isEmpty()) {
        item.version = a.value(sparkleNs, QStringLiteral("version")).toString();
    }
    if (item.shortVersion.isEmpty()) {
        item.shortVersion = a.value(sparkleNs, QStringLiteral("shortVersionString")).toString();
    }
}

AppcastItem readItem(QXmlStreamReader& xml) {
    AppcastItem item;
    while (xml.readNextStartElement()) {
        if (xml.name() == u"title" && xml.namespaceUri().isEmpty()) {
            item.title = xml.readElementText().trimmed();
        } else if (xml.name() == u"description" && xml.namespaceUri().isEmpty()) {
            item.releaseNotes = xml.readElementText().trimmed();
        } else if (xml.name() == u"pubDate") {
            item.pubDate = parseRfc822(xml.readElementText());
        } else if (isSparkle(xml, u"version")) {
            item.version = xml.readElementText().trimmed();
        } else if (isSparkle(xml, u"shortVersionString")) {
            item.shortVersion = xml.readElementText().trimmed();
        } else if (isSparkle(xml, u"criticalUpdate")) {
            item.critical = true;
            xml.skipCurrentElement();
        } else if (xml.name() == u"enclosure") {
            readEnclosure(xml, item);
            xml.skipCurrentElement();
        } else {
            xml.skipCurrentElement();
        }
    }
    if (item.shortVersion.isEmpty()) {
        item.shortVersion = item.version;
    }
    return item;
}

int leadingNumber(const QString& component) {
    qsizetype digits = 0;
    while (digits < component.size() && component.at(digits).isDigit() && digits < 9) {
        ++digits;
    }
    return digits == 0 ? 0 : component.left(digits).toInt();
}

QString escaped(const QString& text) {
    return text.toHtmlEscaped();
}

} // namespace

std::variant<QList<AppcastItem>, QString> parseAppcast(const QByteArray& data) {
    QXmlStreamReader xml(data);
    QList<AppcastItem> items;
    bool sawChannel = false;
    while (!xml.atEnd()) {
        xml.readNext();
        if (!xml.isStartElement()) {
            continue;
        }
        if (xml.name() == u"channel") {
            sawChannel = true;
        } else if (xml.name() == u"item") {
            items << readItem(xml);
        }
    }
    if (xml.hasError()) {
        return QCoreApplication::translate("ostrand::Appcast",
                                           "The update feed is not valid XML (line %1: %2).")
            .arg(xml.lineNumber())
            .arg(xml.errorString());
    }
    if (!sawChannel) {
        return QCoreApplication::translate("ostrand::Appcast", "The update feed has no channel.");
    }
    return items;
}

int compareVersions(const QString& a, const QString& b) {
    const QStringList left = a.trimmed().split(QLatin1Char('.'));
    const QStringList right = b.trimmed().split(QLatin1Char('.'));
    const qsizetype count = std::max(left.size(), right.size());
    for (qsizetype i = 0; i < count; ++i) {
        const int l = i < left.size() ? leadingNumber(left.at(i)) : 0;
        const int r = i < right.size() ? leadingNumber(right.at(i)) : 0;
        if (l != r) {
            return l < r ? -1 : 1;
        }
    }
    return 0;
}

std::optional<AppcastItem> newestUpdate(const QList<AppcastItem>& items, const QString& current,
                                        const QString& skipped) {
    std::optional<AppcastItem> newest;
    for (const AppcastItem& item : items) {
        if (item.os != u"linux" || item.version.isEmpty() || !item.url.isValid() ||
            compareVersions(item.version, current) <= 0) {
            continue;
        }
        if (!item.critical && !skipped.isEmpty() && compareVersions(item.version, skipped) == 0) {
            continue;
        }
        if (!newest || compareVersions(item.version, newest->version) > 0) {
            newest = item;
        }
    }
    return newest;
}

QByteArray appcastItemXml(const AppcastItem& item) {
    QString out;
    out += QStringLiteral("    <item>\n");
    out += QStringLiteral("      <title>%1</title>\n").arg(escaped(item.title));
    out +=
        QStringLiteral("      <sparkle:version>%1</sparkle:version>\n").arg(escaped(item.version));
    out += QStringLiteral("      <sparkle:shortVersionString>%1</sparkle:shortVersionString>\n")
               .arg(escaped(item.shortVersion));
    out += QStringLiteral("      <pubDate>%1</pubDate>\n").arg(rfc822(item.pubDate));
    if (item.critical) {
        out += QStringLiteral("      <sparkle:criticalUpdate/>\n");
    }
    QString notes = item.releaseNotes;
    notes.replace(QStringLiteral("]]>"), QStringLiteral("]]]]><![CDATA[>"));
    out += QStringLiteral("      <description><![CDATA[%1]]></description>\n").arg(notes);
    out += QStringLiteral("      <enclosure url=\"%1\" length=\"%2\" type=\"%3\" sparkle:os=\"%4\" "
                          "sparkle:edSignature=\"%5\"/>\n")
               .arg(escaped(item.url.toString(QUrl::FullyEncoded)))
               .arg(item.length)
               .arg(escaped(item.type), escaped(item.os), escaped(item.edSignature));
    out += QStringLiteral("    </item>\n");
    return out.toUtf8();
}

QByteArray insertAppcastItem(const QByteArray& xml, const QByteArray& itemXml,
                             const QString& channelTitle) {
    QByteArray feed = xml;
    if (feed.trimmed().isEmpty()) {
        feed = QByteArrayLiteral("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                                 "<rss version=\"2.0\" xmlns:sparkle=\"") +
               sparkleNs.toUtf8() + QByteArrayLiteral("\">\n  <channel>\n    <title>") +
               escaped(channelTitle).toUtf8() +
               QByteArrayLiteral("</title>\n  </channel>\n</rss>\n");
    }
    // Newest first, right after the channel's own elements before any item.
    qsizetype at = feed.indexOf("<item>");
    if (at < 0) {
        at = feed.lastIndexOf("</channel>");
    }
    if (at < 0) {
        return {};
    }
    while (at > 0 && (feed.at(at - 1) == ' ' || feed.at(at - 1) == '\t')) {
        --at;
    }
    feed.insert(at, itemXml);
    return feed;
}

} // namespace ostrand
