// The updater against a feed and packages served from 127.0.0.1: what a
// user check and a background check show, skipping, installing, and the
// second launch's question. The windows are replaced by a recorder.
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
        Choice answer = Choice::Later;
        bool agree = true;
        bool cancel = false; // a download is cancelled as soon as it starts
        QString opened;
    };
    explicit Recorder(Log& log)
        : m_log(log) {}
    void upToDate(const QString& message) override { m_log.calls << "upToDate: " + message; }
    void failed(const QString& message) override { m_log.calls << "failed: " + message; }
    void offer(const AppcastItem& item, const QString&,
               std::function<void(Choice)> decided) override {
        m_log.calls << "offer: " + item.version;
        decided(m_log.answer);
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
    void open(const QString& path) override {
        m_log.calls << QStringLiteral("open");
        m_log.opened = path;
    }
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
        row("neither", "", "");
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

    // A user check says what it found; a background check only ever offers.
    // Which update is offered, and every way a fetch fails, the feed's own
    // tests pin; one failure stands for them here.
    void checkOutcome_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("background");
        QTest::addColumn<QString>("expected"); // a prefix of the one call; empty: none
        struct Row {
            const char* name;
            const char* path;
            const char* user;
            bool offered;
        };
        const Row rows[] = {
            {"up to date", "/current.xml",
             "upToDate: Ostrand 0.1.0 is the newest version available.", false},
            {"newer offered", "/newer.xml", "offer: 0.2.0", true},
            {"HTTP 404", "/gone.xml",
             "failed: The update feed could not be read: the server answered HTTP 404", false},
        };
        for (const Row& row : rows) {
            QTest::addRow("user: %s", row.name) << row.path << false << row.user;
            QTest::addRow("background: %s", row.name)
                << row.path << true << (row.offered ? row.user : "");
        }
    }
    void checkOutcome() {
        QFETCH(QString, path);
        QFETCH(bool, background);
        QFETCH(QString, expected);
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
        if (expected.isEmpty()) {
            QCOMPARE(m_log.calls, QStringList());
        } else {
            QCOMPARE(m_log.calls.size(), 1);
            QVERIFY2(m_log.calls.first().startsWith(expected), qPrintable(m_log.calls.first()));
        }
    }

    // A skipped version is not offered again, even after a restart; "later"
    // offers it at the next check.
    void answerDecidesTheNextCheck_data() {
        QTest::addColumn<int>("answer");
        QTest::addColumn<QString>("next");
        QTest::newRow("skip") << int(UpdatePrompter::Choice::Skip) << "upToDate";
        QTest::newRow("later") << int(UpdatePrompter::Choice::Later) << "offer: 0.2.0";
    }
    void answerDecidesTheNextCheck() {
        QFETCH(int, answer);
        QFETCH(QString, next);
        m_log.answer = UpdatePrompter::Choice(answer);
        checked(QStringLiteral("/newer.xml"));
        checked(QStringLiteral("/newer.xml"));
        QCOMPARE(m_log.calls.size(), 2);
        QCOMPARE(m_log.calls.first(), QStringLiteral("offer: 0.2.0"));
        QVERIFY2(m_log.calls.last().startsWith(next), qPrintable(m_log.calls.last()));
    }

    // Whichever way a download ends, the check ends with it; only a package
    // that verifies is opened, and nothing else stays behind.
    void installOpensOnlyAVerifiedPackage_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("cancel");
        QTest::addColumn<QString>("last"); // part of the call after "ended"; empty: none
        QTest::newRow("verifies") << "/newer.xml" << false << "open";
        QTest::newRow("signed by another key")
            << "/forged.xml" << false << "failed: The download's signature does not verify";
        QTest::newRow("cancelled") << "/newer.xml" << true << "";
    }
    void installOpensOnlyAVerifiedPackage() {
        QFETCH(QString, path);
        QFETCH(bool, cancel);
        QFETCH(QString, last);
        m_log.answer = UpdatePrompter::Choice::Install;
        m_log.cancel = cancel;
        if (cancel) { // held open until it is cancelled
            m_server->serve(QStringLiteral("/ostrand_0.2.0_amd64.deb"),
                            {200, m_package, {}, -1, 1});
        }
        auto updater = checked(path);
        QVERIFY(updater->canCheckForUpdates());
        QCOMPARE(m_log.calls.mid(0, 3),
                 QStringList({QStringLiteral("offer: 0.2.0"), QStringLiteral("started"),
                              QStringLiteral("ended")}));
        QCOMPARE(m_log.calls.size(), last.isEmpty() ? 3 : 4);
        QVERIFY2(m_log.calls.last().startsWith(last), qPrintable(m_log.calls.last()));
        const QDir downloads(QDir(m_dir->path()).filePath(QStringLiteral("downloads")));
        if (last == u"open") {
            QCOMPARE(m_log.opened, downloads.filePath(QStringLiteral("ostrand_0.2.0_amd64.deb")));
            QCOMPARE(contentsOf(m_log.opened), m_package);
        } else {
            QVERIFY(downloads.isEmpty());
        }
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
        const QString feed = m_server->url(QStringLiteral("/current.xml")).toString();
        const QString fetches = QStringLiteral("/current.xml");
        store()->clear();
        {
            auto first = make(feed, key());
            QTest::qWait(200);
            QCOMPARE(m_log.calls, QStringList());
            QCOMPARE(m_server->requests(fetches), 0);
            QVERIFY(!first->automaticallyChecksForUpdates());
        }
        {
            auto second = make(feed, key());
            QTRY_COMPARE(m_log.calls, QStringList{QStringLiteral("ask")});
            QTRY_VERIFY(second->canCheckForUpdates()); // a check has ended
            QCOMPARE(m_server->requests(fetches), checks);
            QCOMPARE(second->automaticallyChecksForUpdates(), agree);
        }
        {
            auto third = make(feed, key());
            QTest::qWait(200);
            QCOMPARE(m_log.calls, QStringList{QStringLiteral("ask")});
            QCOMPARE(m_server->requests(fetches), checks); // checked less than a day ago
            QCOMPARE(third->automaticallyChecksForUpdates(), agree);
            third->setAutomaticallyChecksForUpdates(false);
        }
        store()->setValue(QStringLiteral("updates/lastCheck"),
                          QDateTime::currentDateTimeUtc().addDays(-2));
        auto fourth = make(feed, key());
        QTest::qWait(200);
        QVERIFY(!fourth->automaticallyChecksForUpdates());
        QCOMPARE(m_server->requests(fetches), checks); // off: no check, however long ago
    }

    // The offer's window gives exactly one answer, whichever way it ends, and
    // a critical update has no way to be skipped.
    void offerDialogAnswers_data() {
        QTest::addColumn<bool>("critical");
        QTest::addColumn<QString>("button"); // empty: the window is closed
        QTest::addColumn<int>("expected");
        QTest::newRow("install") << false << "install" << int(UpdatePrompter::Choice::Install);
        QTest::newRow("skip") << false << "skip" << int(UpdatePrompter::Choice::Skip);
        QTest::newRow("later") << false << "later" << int(UpdatePrompter::Choice::Later);
        QTest::newRow("closed") << false << "" << int(UpdatePrompter::Choice::Later);
        QTest::newRow("critical: install")
            << true << "install" << int(UpdatePrompter::Choice::Install);
        QTest::newRow("critical: closed") << true << "" << int(UpdatePrompter::Choice::Later);
    }
    void offerDialogAnswers() {
        QFETCH(bool, critical);
        QFETCH(QString, button);
        QFETCH(int, expected);
        AppcastItem item;
        item.version = QStringLiteral("0.2.0");
        item.shortVersion = QStringLiteral("0.2");
        item.critical = critical;
        item.releaseNotes = QStringLiteral("<p>Now with <b>bold</b> notes</p><script>x</script>");
        QList<int> answers;
        QPointer<QDialog> dialog = UpdateDialogs::makeOfferDialog(
            item, QStringLiteral("0.1.0"),
            [&answers](UpdatePrompter::Choice choice) { answers << int(choice); }, nullptr);
        dialog->show();
        QCOMPARE(dialog->findChild<QPushButton*>(QStringLiteral("skip")) != nullptr, !critical);
        const QString notes =
            dialog->findChild<QTextBrowser*>(QStringLiteral("releaseNotes"))->toPlainText();
        QCOMPARE(notes.trimmed(), QStringLiteral("Now with bold notes"));
        if (button.isEmpty()) {
            dialog->close();
        } else {
            dialog->findChild<QPushButton*>(button)->click();
        }
        QTRY_VERIFY(dialog.isNull()); // deleted once answered
        QCOMPARE(answers, QList<int>{expected});
    }

private:
    QString key() const { return QString::fromLatin1(m_keys.publicKey.toBase64()); }
    std::unique_ptr<QSettings> store() const {
        return std::make_unique<QSettings>(
            QDir(m_dir->path()).filePath(QStringLiteral("settings.ini")), QSettings::IniFormat);
    }

    std::unique_ptr<AppUpdater> make(const QString& feedUrl, const QString& publicKey,
                                     std::unique_ptr<UpdatePrompter> prompter = {}) {
        AppUpdater::Configuration config;
        config.feedUrl = feedUrl;
        config.publicKey = publicKey;
        config.currentVersion = QStringLiteral("0.1.0");
        // Loaded afresh, as at a launch; it lives as long as the updater.
        auto* settings = new OstrandSettings(store());
        config.settings = settings;
        config.downloadFolder = QDir(m_dir->path()).filePath(QStringLiteral("downloads"));
        auto updater = std::make_unique<AppUpdater>(
            std::move(config), prompter ? std::move(prompter) : std::make_unique<Recorder>(m_log));
        settings->setParent(updater.get());
        return updater;
    }

    // An updater after one user check of `path` has ended.
    std::unique_ptr<AppUpdater> checked(const QString& path) {
        auto updater = make(m_server->url(path).toString(), key());
        if (!QTest::qWaitFor([&] { return updater->canCheckForUpdates(); }, 5000)) {
            return updater;
        }
        QSignalSpy idle(updater.get(), &AppUpdater::idle);
        updater->checkForUpdates();
        idle.wait(10'000);
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
