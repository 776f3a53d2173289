// The updater against a feed and packages served from 127.0.0.1: what a
// user check and a background check show, skipping, installing, and the
// second launch's question. A recorder stands in for the windows but the
// offer's, which it answers.
#include "ui/AppUpdater.h"
#include "app/OstrandSettings.h"
#include "ui/UpdateDialogs.h"
#include "update/Ed25519.h"
#include "update/TestHttpServer.h"

#include <QDialog>
#include <QDir>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>

using namespace ostrand;
using namespace ostrand::test;

namespace {

struct Recorder : UpdatePrompter {
    struct Log {
        QStringList calls;
        QString answer = QStringLiteral("later"); // the offer's button; empty: it is closed
        bool agree = true;
        bool cancel = false; // a download is cancelled as soon as it starts
        QList<QPointer<QDialog>> offers;
        int answers = 0;
    };
    explicit Recorder(Log& log)
        : m_log(log) {}
    void upToDate(const QString& message) override { m_log.calls << "upToDate: " + message; }
    void failed(const QString& message) override { m_log.calls << "failed: " + message; }
    // In the real window, which gives exactly one answer whichever way it
    // ends and has no way to skip a critical update.
    void offer(const AppcastItem& item, const QString& current,
               std::function<void(Choice)> decided) override {
        const auto answered = [this, decided = std::move(decided)](Choice choice) {
            ++m_log.answers;
            decided(choice);
        };
        QDialog* dialog = UpdateDialogs::makeOfferDialog(item, current, answered, nullptr);
        m_log.offers << dialog;
        dialog->show();
        const auto* notes = dialog->findChild<QTextBrowser*>(QStringLiteral("releaseNotes"));
        m_log.calls << "offer: " + item.version + " (" + notes->toPlainText().trimmed() + ")";
        auto* button = dialog->findChild<QPushButton*>(m_log.answer);
        if (button && !m_log.answer.isEmpty()) {
            button->click();
        } else {
            m_log.calls << "closed without " + m_log.answer;
            dialog->close();
        }
    }
    void askAutomaticChecks(std::function<void(bool)> decided) override {
        m_log.calls << QStringLiteral("ask");
        decided(m_log.agree);
    }
    void downloadStarted(const AppcastItem&, std::function<void()> cancel) override {
        m_log.calls << QStringLiteral("started");
        if (m_log.cancel) {
            QTimer::singleShot(0, std::move(cancel)); // as a click would, later
        }
    }
    void downloadProgress(qint64, qint64) override {}
    void downloadEnded() override { m_log.calls << QStringLiteral("ended"); }
    void open(const QString& path) override { m_log.calls << "open: " + path; }
    Log& m_log;
};

} // namespace

class AppUpdaterTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        m_keys = *ed25519::generate();
        m_package = QByteArray("!<arch>\n") + QByteArray(20'000, 'd');
        m_signature = signatureOf(m_keys.seed, QStringLiteral("0.2.0"), m_package);
    }

    void init() {
        m_dir = std::make_unique<QTemporaryDir>();
        m_server = std::make_unique<TestHttpServer>();
        m_log = {};
        // The second launch's question has its own tests.
        store()->setValue(QStringLiteral("updates/askedAboutAutomaticChecks"), true);
        const QString deb = m_server->url(QStringLiteral("/ostrand_0.2.0_amd64.deb")).toString();
        const auto signedBy = [&](const QString& signature) {
            return item("0.2.0", "linux", {}, deb, m_package.size(), signature);
        };
        const QByteArray current = item("0.1.0", "linux", {}, deb, m_package.size(), m_signature);
        m_server->serve(QStringLiteral("/current.xml"), feed(current));
        m_server->serve(QStringLiteral("/newer.xml"), feed(current + signedBy(m_signature)));
        m_server->serve(QStringLiteral("/critical.xml"),
                        feed(item("0.2.0", "linux", "<sparkle:criticalUpdate/>")));
        m_server->serve(QStringLiteral("/forged.xml"),
                        feed(signedBy(signatureOf(ed25519::generate()->seed, "0.2.0", m_package))));
        m_server->serve(QStringLiteral("/ostrand_0.2.0_amd64.deb"), m_package);
    }

    void unavailableWithoutValidConfiguration_data() {
        QTest::addColumn<QString>("feed");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("note"); // part of what the settings window says
        const auto row = [](const char* name, const char* feed, const QByteArray& key) {
            const bool unset = !*feed || key.isEmpty();
            QTest::newRow(name) << feed << QString::fromLatin1(key)
                                << (unset ? "has no update feed" : "not set up correctly");
        };
        const char* https = "https://example.com/appcast.xml";
        const QByteArray key = QByteArray(32, 'k').toBase64();
        row("no key", https, "");
        row("no feed", "", key);
        row("key not base64", https, "not*base64!");
        row("key of 31 bytes", https, QByteArray(31, 'k').toBase64());
        row("key of 33 bytes", https, QByteArray(33, 'k').toBase64());
        row("plain http to a host", "http://example.com/appcast.xml", key);
    }
    void unavailableWithoutValidConfiguration() {
        QFETCH(QString, feed);
        QFETCH(QString, key);
        QFETCH(QString, note);
        auto updater = make(feed, key);
        QVERIFY2(updater->unavailableNote().contains(note), qPrintable(updater->unavailableNote()));
        QTest::qWait(50);
        QVERIFY(!updater->canCheckForUpdates());
        updater->checkForUpdates();
        QVERIFY(m_log.calls.isEmpty());
    }

    // A user check says what it found, a background check only ever offers.
    // A skipped version is not offered again, even after a restart; "later"
    // offers it at the next check. Whichever way a download ends, the check
    // ends with it; only a package that verifies is opened, and nothing else
    // stays behind. Which update is offered, and every way a fetch or a
    // download fails, the feed's own tests pin; one failure of each stands
    // for them here.
    void checks_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("background");
        QTest::addColumn<QString>("answer"); // to every offer; "cancel": install, then cancel
        QTest::addColumn<int>("launches");   // each with one check
        QTest::addColumn<QString>("calls");  // a prefix of each call, "|" between
        const auto row = [](const char* name, const char* path, bool background, const char* answer,
                            int launches, const QString& calls) {
            QTest::newRow(name) << path << background << answer << launches << calls;
        };
        const QString upToDate = "upToDate: Ostrand 0.1.0 is the newest version available.";
        const QString gone = "failed: The update feed could not be read: the server answered "
                             "HTTP 404";
        const QString downloaded = "offer: 0.2.0|started|ended";
        const QString closed = "offer: 0.2.0|closed without ";
        row("user: up to date", "/current.xml", false, "later", 1, upToDate);
        row("background: up to date", "/current.xml", true, "later", 1, "");
        row("user: HTTP 404", "/gone.xml", false, "later", 1, gone);
        row("background: HTTP 404", "/gone.xml", true, "later", 1, "");
        row("background: later", "/newer.xml", true, "later", 2, "offer: 0.2.0|offer: 0.2.0");
        row("skip", "/newer.xml", false, "skip", 2, "offer: 0.2.0|upToDate");
        row("closed", "/newer.xml", false, "", 2, closed + "|" + closed);
        row("critical, not to be skipped", "/critical.xml", false, "skip", 2,
            closed + "skip|" + closed + "skip");
        row("install", "/newer.xml", false, "install", 1,
            "offer: 0.2.0 (Notes for 0.2.0)|started|ended|open: ");
        row("install, signed by another key", "/forged.xml", false, "install", 1,
            downloaded + "|failed: The download's signature does not verify");
        row("install, cancelled", "/newer.xml", false, "cancel", 1, downloaded);
    }
    void checks() {
        QFETCH(QString, path);
        QFETCH(bool, background);
        QFETCH(QString, answer);
        QFETCH(int, launches);
        QFETCH(QString, calls);
        m_log.answer = answer == u"cancel" ? QStringLiteral("install") : answer;
        m_log.cancel = answer == u"cancel";
        if (m_log.cancel) { // held open until it is cancelled
            m_server->serve(QStringLiteral("/ostrand_0.2.0_amd64.deb"),
                            {200, m_package, {}, -1, 1});
        }
        for (int launch = 0; launch < launches; ++launch) {
            auto updater = make(m_server->url(path).toString(), key());
            QTRY_VERIFY(updater->canCheckForUpdates());
            QSignalSpy changes(updater.get(), &AppUpdater::canCheckForUpdatesChanged);
            QSignalSpy idle(updater.get(), &AppUpdater::idle);
            background ? updater->checkInBackground() : updater->checkForUpdates();
            // Both items are off while the check runs.
            QVERIFY(!updater->canCheckForUpdates());
            QVERIFY(idle.wait(10'000));
            QVERIFY(updater->canCheckForUpdates());
            QCOMPARE(changes.count(), 2);
        }
        const QStringList expected = calls.split(u'|', Qt::SkipEmptyParts);
        QCOMPARE(m_log.calls.size(), expected.size());
        for (qsizetype i = 0; i < expected.size(); ++i) {
            QVERIFY2(m_log.calls[i].startsWith(expected[i]), qPrintable(m_log.calls[i]));
        }
        const QDir downloads(QDir(m_dir->path()).filePath(QStringLiteral("downloads")));
        const QString package = downloads.filePath(QStringLiteral("ostrand_0.2.0_amd64.deb"));
        if (calls.endsWith(u"open: ")) {
            QCOMPARE(m_log.calls.last(), "open: " + package);
            QCOMPARE(contentsOf(package), m_package);
        } else {
            QVERIFY(downloads.isEmpty());
        }
        QCOMPARE(m_log.answers, m_log.offers.size());
        QTRY_COMPARE(m_log.offers.count(nullptr), m_log.offers.size()); // deleted once answered
    }

    // Never on the first launch; one question on the second; after that, at
    // most a check a day while agreed to; the answer persists.
    void automaticChecksFollowTheLaunches_data() {
        QTest::addColumn<bool>("agree");
        QTest::newRow("agreed") << true;
        QTest::newRow("declined") << false;
    }
    void automaticChecksFollowTheLaunches() {
        QFETCH(bool, agree);
        m_log.agree = agree;
        const int checks = agree ? 1 : 0;
        const QString fetches = QStringLiteral("/current.xml");
        // A launch, once a check it started has ended.
        const auto launch = [&] {
            auto updater = make(m_server->url(fetches).toString(), key());
            QTest::qWait(200);
            (void)QTest::qWaitFor([&] { return updater->canCheckForUpdates(); }, 10'000);
            return updater;
        };
        store()->clear();
        QVERIFY(!launch()->automaticallyChecksForUpdates());
        QCOMPARE(m_log.calls, QStringList());
        QCOMPARE(m_server->requests(fetches), 0);
        auto second = launch();
        QVERIFY(second->canCheckForUpdates()); // its check has ended
        QCOMPARE(second->automaticallyChecksForUpdates(), agree);
        QCOMPARE(m_log.calls, QStringList{QStringLiteral("ask")});
        QCOMPARE(m_server->requests(fetches), checks);
        second.reset();
        auto third = launch();
        QCOMPARE(third->automaticallyChecksForUpdates(), agree);
        QCOMPARE(m_log.calls, QStringList{QStringLiteral("ask")});
        QCOMPARE(m_server->requests(fetches), checks); // checked less than a day ago
        third->setAutomaticallyChecksForUpdates(false);
        third.reset();
        store()->setValue(QStringLiteral("updates/lastCheck"),
                          QDateTime::currentDateTimeUtc().addDays(-2));
        QVERIFY(!launch()->automaticallyChecksForUpdates());
        QCOMPARE(m_server->requests(fetches), checks); // off: no check, however long ago
    }

private:
    QString key() const { return QString::fromLatin1(m_keys.publicKey.toBase64()); }
    std::unique_ptr<QSettings> store() const {
        return std::make_unique<QSettings>(
            QDir(m_dir->path()).filePath(QStringLiteral("settings.ini")), QSettings::IniFormat);
    }

    std::unique_ptr<AppUpdater> make(const QString& feedUrl, const QString& publicKey) {
        // Loaded afresh, as at a launch; it lives as long as the updater.
        auto* settings = new OstrandSettings(store());
        auto updater = std::make_unique<AppUpdater>(
            AppUpdater::Configuration{feedUrl, publicKey, QStringLiteral("0.1.0"), settings,
                                      QDir(m_dir->path()).filePath(QStringLiteral("downloads")), 0},
            std::make_unique<Recorder>(m_log));
        settings->setParent(updater.get());
        return updater;
    }

    ed25519::KeyPair m_keys;
    QByteArray m_package;
    QString m_signature;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<TestHttpServer> m_server;
    Recorder::Log m_log;
};

QTEST_MAIN(AppUpdaterTest)
#include "AppUpdaterTest.moc"
