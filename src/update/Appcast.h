#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QUrl>

#include <optional>
#include <variant>

namespace ostrand {

// One release in an appcast (the RSS feed format of Sparkle).
struct AppcastItem {
    QString title;
    QString version;      // sparkle:version, compared numerically
    QString shortVersion; // sparkle:shortVersionString, shown to people
    QString releaseNotes; // HTML
    QDateTime pubDate;
    bool critical = false;
    QUrl url;
    qint64 length = -1;
    QString type;
    QString os;
    QString edSignature; // base64
};

// The items of an appcast, or the reason it could not be read.
std::variant<QList<AppcastItem>, QString> parseAppcast(const QByteArray& xml);

// Numeric, component-wise: "1.10" > "1.9", "1.0" == "1", a missing component
// counts as 0 and anything after the digits of a component is ignored.
int compareVersions(const QString& a, const QString& b);

// The newest item for Linux that is newer than `current`. A skipped version
// is passed over unless the item is critical.
std::optional<AppcastItem> newestUpdate(const QList<AppcastItem>& items, const QString& current,
                                        const QString& skipped = {});

// What `ostrand-sign appcast` writes.
QByteArray appcastItemXml(const AppcastItem& item);
// Adds an item as the first of the channel, creating the feed when `xml` is
// empty; empty when `xml` has no channel.
QByteArray insertAppcastItem(const QByteArray& xml, const QByteArray& itemXml,
                             const QString& channelTitle);

} // namespace ostrand

Q_DECLARE_METATYPE(ostrand::AppcastItem)
