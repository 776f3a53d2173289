// The update feed without windows: versions, the appcast, and fetching and
// verifying against a server on 127.0.0.1.
#include "update/UpdateFeed.h"
#include "TestHttpServer.h"
#include "update/Appcast.h"
#include "update/Ed25519.h"

#include <QDir>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace ostrand;
using namespace ostrand::test;
using Response = TestHttpServer::Response;
Q_DECLARE_METATYPE(Response)

namespace {

QList<AppcastItem> parsed(const QByteArray& xml) {
    const auto result = parseAppcast(xml);
    const auto* items = std::get_if<QList<AppcastItem>>(&result);
    return items ? *items : QList<AppcastItem>{};
}

// Every field of an item, to compare items at once.
QString fields(const AppcastItem& i) {
    QString text;
    QDebug(&text) << i.title << i.version << i.shortVersion << i.releaseNotes << i.pubDate.toUTC()
                  << i.critical << i.url << i.length << i.type << i.os << i.edSignature;
    return text;
}

} // namespace

class UpdateFeedTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        m_keys = *ed25519::generate();
        QVERIFY(m_downloads.isValid());
        m_server.serve(QStringLiteral("/appcast.xml"), feed(item("0.2.0")));
    }

    // Versions compare numerically, component by component, against the
    // running 0.1.0, each other and the skipped one.
    void newestUpdateIsChosen_data() {
        QTest::addColumn<QByteArray>("items");
        QTest::addColumn<QString>("skipped");
        QTest::addColumn<QString>("expected"); // empty: no update
        const auto row = [](const char* name, const QByteArray& items, const char* skipped,
                            const char* expected) {
            QTest::newRow(name) << items << skipped << expected;
        };
        row("up to date", item("0.1.0"), "", "");
        row("older only", item("0.0.9"), "", "");
        row("newer offered", item("0.2.0"), "", "0.2.0");
        row("newest of several, any order", item("0.2.0") + item("0.10.0") + item("0.3.0"), "",
            "0.10.0");
        row("other systems ignored", item("0.2.0") + item("0.9.0", "macos") + item("0.8.0", ""), "",
            "0.2.0");
        row("skipped not offered", item("0.2.0"), "0.2.0", "");
        row("skipped one, older still offered", item("0.2.0") + item("0.3.0"), "0.3.0", "0.2.0");
        row("critical offered though skipped", item("0.2.0", "linux", "<sparkle:criticalUpdate/>"),
            "0.2.0", "0.2.0");
        row("critical older not offered", item("0.0.9", "linux", "<sparkle:criticalUpdate/>"), "",
            "");
        row("longer is newer", item("0.1.0.1"), "", "0.1.0.1");
        row("major wins", item("1.0") + item("0.99.99"), "", "1.0");
        row("anything after a component's digits ignored", item("0.2b3"), "", "0.2b3");
        row("a missing component is zero: skipped 0.2", item("0.2.0"), "0.2", "");
        row("a missing component is zero: offered 0.2", item("0.2"), "0.2.0", "");
        row("no leading zeros", item("0.2.0"), "0.02.0", "");
    }
    void newestUpdateIsChosen() {
        QFETCH(QByteArray, items);
        QFETCH(QString, skipped);
        QFETCH(QString, expected);
        const auto update = newestUpdate(parsed(feed(items)), QStringLiteral("0.1.0"), skipped);
        QCOMPARE(update ? update->version : QString(), expected);
    }

    // An item as Sparkle's feeds have it is read completely; what ostrand-sign
    // writes is what the updater reads, notes with "]]>" too.
    void itemsReadBack() {
        const AppcastItem sparkle{"Ostrand 0.2.0",
                                  "0.2.0",
                                  "0.2",
                                  "<p>Notes for <b>0.2.0</b></p><script>x</script>",
                                  QDateTime(QDate(2026, 11, 23), QTime(16, 0), Qt::UTC),
                                  false,
                                  QUrl("https://example.com/a b.deb"),
                                  1234,
                                  "application/vnd.debian.binary-package",
                                  "linux",
                                  "AAAA"};
        const QByteArray extra = "<pubDate>Mon, 23 Nov 2026 16:00:00 +0000</pubDate>"
                                 "<sparkle:shortVersionString>0.2</sparkle:shortVersionString>";
        const auto read = parsed(
            feed(item("0.2.0", "linux", extra, "https://example.com/a b.deb", 1234, "AAAA")));
        QCOMPARE(fields(read.value(0)), fields(sparkle));

        AppcastItem written = sparkle;
        written.title = "Ostrand 1.2 & more";
        written.releaseNotes = "<p>a]]>b</p>";
        written.pubDate = QDateTime(QDate(2026, 11, 23), QTime(9, 5, 1), Qt::UTC);
        written.critical = true;
        written.url = QUrl("https://example.com/ostrand_1.2.0_amd64.deb?x=1&y=2");
        QByteArray xml = insertAppcastItem({}, appcastItemXml(written), QStringLiteral("Ostrand"));
        xml = insertAppcastItem(xml, appcastItemXml(written), QStringLiteral("Ostrand"));
        const auto items = parsed(xml);
        QCOMPARE(items.size(), 2);
        QCOMPARE(fields(items.first()), fields(written));
    }

    // A fetch goes over HTTPS or to this machine only and follows redirects
    // within its scheme; a failure says why.
    void fetch_data() {
        QTest::addColumn<QUrl>("url");
        QTest::addColumn<Response>("response"); // at /feed
        QTest::addColumn<QString>("errorPart"); // empty: the one item is fetched
        const auto row = [this](const char* name, const Response& response, const char* errorPart,
                                const QString& url = {}) {
            QTest::newRow(name) << (url.isEmpty() ? m_server.url(QStringLiteral("/feed"))
                                                  : QUrl(url))
                                << response << errorPart;
        };
        const QByteArray one = feed(item("0.2.0"));
        const QByteArray here = m_server.url(QStringLiteral("/appcast.xml")).toEncoded();
        row("redirect within the scheme", {301, {}, here, -1, 0}, "");
        row("malformed XML", {200, one.chopped(20), {}, -1, 0}, "not valid XML");
        row("HTTP 404", {404, {}, {}, -1, 0}, "HTTP 404 Not Found");
        row("over the size limit", {200, feed(QByteArray(8000, ' ') + item("0.2.0")), {}, -1, 0},
            "larger than");
        row("not an appcast", {200, "<html><body>hello</body></html>", {}, -1, 0}, "no channel");
        row("redirect to another scheme",
            {302, {}, QByteArray(here).replace("http:", "https:"), -1, 0}, "could not be read");
        row("a byte now and then past the deadline", {200, one, {}, -1, 1}, "within 1 seconds");
        // Refused before any request, or tried and unreachable.
        row("unreachable host", {}, "could not be read", "http://127.0.0.1:1/appcast.xml");
        row("https", {}, "could not be read", "https://127.0.0.1:1/appcast.xml");
        row("http to ::1", {}, "could not be read", "http://[::1]:1/appcast.xml");
        row("http to localhost", {}, "", QString(here).replace("127.0.0.1", "localhost"));
        row("plain http to a host", {}, "https://", "http://example.com/appcast.xml");
        row("http to 127.0.0.1.example.com", {}, "https://", "http://127.0.0.1.example.com/a");
        row("ftp", {}, "https://", "ftp://example.com/appcast.xml");
        row("file", {}, "not a valid address", "file:///etc/passwd");
    }
    void fetch() {
        QFETCH(QUrl, url);
        QFETCH(Response, response);
        QFETCH(QString, errorPart);
        m_server.serve(QStringLiteral("/feed"), response);
        const auto updates = make(url);
        updates->setFeedLimit(4096);
        QSignalSpy failed(updates.get(), &UpdateFeed::fetchFailed);
        QSignalSpy fetched(updates.get(), &UpdateFeed::fetched);
        updates->fetch();
        QTRY_VERIFY_WITH_TIMEOUT(failed.count() + fetched.count() == 1, 10'000);
        QCOMPARE(fetched.count(), errorPart.isEmpty() ? 1 : 0);
        if (errorPart.isEmpty()) {
            QCOMPARE(fetched.first().first().value<QList<AppcastItem>>().size(), 1);
        } else {
            const QString error = failed.first().first().toString();
            QVERIFY2(error.contains(errorPart, Qt::CaseInsensitive), qPrintable(error));
        }
    }

    void downloads_data() {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("errorPart"); // empty: it verifies
        const auto row = [](const char* name, const char* fault, const char* errorPart) {
            QTest::newRow(name) << fault << errorPart;
        };
        row("verifies", "", "");
        // A file of the user's under the package's name is never replaced.
        row("name taken", "taken", "");
        row("signature of other bytes", "signature", "signature does not verify");
        row("signature by another key", "key", "signature does not verify");
        row("truncated download", "truncated", "could not be downloaded");
        row("shorter than the feed says", "shorter", "the update feed says");
        row("longer than the feed says", "longer", "longer than the update feed says");
        row("HTTP 404", "missing", "HTTP 404 Not Found");
        row("old release under a newer version", "relabelled", "does not verify for version 0.2.0");
        row("not newer than the running version", "not newer", "not newer than the running 0.1.0");
        row("slow past the deadline", "trickle", "did not download within 2 seconds");
        row("cancelled", "cancel", "cancelled");
    }
    void downloads() {
        QFETCH(QString, fault);
        QFETCH(QString, errorPart);
        const QByteArray package = QByteArray("!<arch>\n") + QByteArray(100'000, 'p');
        AppcastItem update;
        update.version = QStringLiteral("0.2.0");
        update.length = package.size();
        update.edSignature = signatureOf(m_keys.seed, update.version, package);
        update.url = m_server.url(QStringLiteral("/ostrand_0.2.0_amd64.deb"));
        Response response{
            200, package, {}, -1, fault == u"trickle" || fault == u"cancel" ? 1000 : 0};
        if (fault == u"signature") {
            response.body[5000] = 'q';
        } else if (fault == u"key") {
            update.edSignature = signatureOf(ed25519::generate()->seed, update.version, package);
        } else if (fault == u"truncated") {
            response.body.truncate(60'000);
            response.declaredLength = package.size();
        } else if (fault == u"shorter" || fault == u"longer") {
            update.length += fault == u"shorter" ? 1 : -1;
        } else if (fault == u"missing") {
            response = {404, {}, {}, -1, 0};
        } else if (fault == u"relabelled") {
            update.edSignature = signatureOf(m_keys.seed, QStringLiteral("0.0.9"), package);
        } else if (fault == u"not newer") {
            update.version = QStringLiteral("0.1.0");
            update.edSignature = signatureOf(m_keys.seed, update.version, package);
        }
        m_server.serve(QStringLiteral("/ostrand_0.2.0_amd64.deb"), response);
        const QDir folder(m_downloads.path());
        const QString path = folder.filePath(QStringLiteral("ostrand_0.2.0_amd64.deb"));
        if (fault == u"taken") {
            QFile mine(path);
            QVERIFY(mine.open(QIODevice::WriteOnly));
            mine.write("the user's own file");
        }

        const auto updates = make(m_server.url(QStringLiteral("/appcast.xml")));
        QSignalSpy done(updates.get(), &UpdateFeed::downloaded);
        QSignalSpy failed(updates.get(), &UpdateFeed::downloadFailed);
        QSignalSpy cancelled(updates.get(), &UpdateFeed::downloadCancelled);
        updates->download(update);
        if (fault == u"cancel") {
            updates->cancelDownload();
        }
        QTRY_VERIFY_WITH_TIMEOUT(done.count() + failed.count() + cancelled.count() == 1, 10'000);
        QCOMPARE(done.count(), errorPart.isEmpty() ? 1 : 0);
        if (errorPart.isEmpty()) {
            const QString written =
                fault == u"taken" ? folder.filePath(QStringLiteral("ostrand_0.2.0_amd64 (2).deb"))
                                  : path;
            QCOMPARE(done.first().first().toString(), written);
            QCOMPARE(contentsOf(written), package);
            QFile::remove(written);
        } else {
            const QString error = cancelled.isEmpty() ? failed.first().first().toString()
                                                      : QStringLiteral("cancelled");
            QVERIFY2(error.contains(errorPart, Qt::CaseInsensitive), qPrintable(error));
        }
        if (fault == u"taken") {
            QCOMPARE(contentsOf(path), QByteArray("the user's own file"));
            QFile::remove(path);
        }
        QVERIFY2(folder.isEmpty(), "nothing stays behind, a rejected download least of all");
    }

private:
    // With deadlines short enough that a request held open fails the test
    // quickly.
    std::unique_ptr<UpdateFeed> make(const QUrl& url) const {
        auto updates = std::make_unique<UpdateFeed>(url, m_keys.publicKey, QStringLiteral("0.1.0"));
        updates->setDeadlines(
            {std::chrono::milliseconds(1000), std::chrono::milliseconds(1000), 1'000'000});
        updates->setDownloadFolder(m_downloads.path());
        return updates;
    }

    ed25519::KeyPair m_keys;
    QTemporaryDir m_downloads;
    TestHttpServer m_server;
};

QTEST_GUILESS_MAIN(UpdateFeedTest)
#include "UpdateFeedTest.moc"
