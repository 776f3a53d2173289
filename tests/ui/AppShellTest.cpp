#include "UiTestSupport.h"
#include "ui/MainWindow.h"
#include "ui/OstrandApp.h"
#include "ui/SettingsWindow.h"
#include "ui/SingleInstance.h"

#include <QProcess>
#include <QtTest>

using namespace ostrand;
using namespace ostrand::test;

class AppShellTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        // The instances of this test meet in a runtime folder of their own.
        std::filesystem::permissions(m_runtime.path(), std::filesystem::perms::owner_all);
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(QString::fromStdString(m_runtime.path())));
    }

    void init() {
        m_fixture = std::make_unique<QueueFixture>();
        m_app = std::make_unique<OstrandApp>(m_fixture->queue, m_fixture->settings.settings);
        m_app->showMainWindow();
    }
    void cleanup() {
        m_app.reset();
        m_fixture.reset();
    }

    void closingTheLastWindow_data() {
        QTest::addColumn<QList<JobState>>("states");
        QTest::addColumn<bool>("quitsAtOnce");
        QTest::newRow("empty queue") << QList<JobState>{} << true;
        QTest::newRow("only ended jobs")
            << QList<JobState>{JobState::finished(), JobState::failed(QStringLiteral("x")),
                               JobState::cancelled()}
            << true;
        QTest::newRow("one waiting job")
            << QList<JobState>{JobState::finished(), JobState::waiting()} << false;
        QTest::newRow("one running job") << QList<JobState>{JobState::running()} << false;
    }
    void closingTheLastWindow() {
        QFETCH(QList<JobState>, states);
        QFETCH(bool, quitsAtOnce);
        addJobs(states);
        QSignalSpy quit(m_app.get(), &OstrandApp::quitRequested);
        m_app->mainWindow().close();
        QTRY_COMPARE(quit.count() + (m_app->isQuitPending() ? 1 : 0), 1);
        QCOMPARE(quit.count(), quitsAtOnce ? 1 : 0);
        if (quitsAtOnce) {
            return;
        }
        // The queue finishes its work without a window, then the program ends
        // and says what it did meanwhile.
        for (LevelingJob* job : m_fixture->queue.jobs()) {
            if (job->state().isActive()) {
                job->setReport(sampleReport(QStringLiteral("x leveled.wav")));
                job->setState(JobState::finished());
            }
        }
        QCOMPARE(quit.count(), 1);
        QCOMPARE(m_app->departureSummary(), QStringLiteral("Leveled: x leveled.wav."));
    }

    void anOpenSettingsWindowKeepsTheProgram() {
        QSignalSpy quit(m_app.get(), &OstrandApp::quitRequested);
        m_app->showSettings();
        m_app->mainWindow().close();
        QTest::qWait(20);
        QCOMPARE(quit.count(), 0);
        m_app->settingsWindow()->close();
        QTRY_COMPARE(quit.count(), 1);
    }

    void workArrivingBringsTheWindowBack() {
        addJobs({JobState::waiting()});
        QSignalSpy quit(m_app.get(), &OstrandApp::quitRequested);
        m_app->mainWindow().close();
        QTRY_VERIFY(m_app->isQuitPending());

        m_app->openFiles({QStringLiteral("notes.txt")});
        QVERIFY(!m_app->mainWindow().isVisible());

        m_app->openFiles({QStringLiteral("a.wav"), QueueFixture::file("b.mp4").toString()});
        QVERIFY(m_app->mainWindow().isVisible());
        QVERIFY(!m_app->isQuitPending());
        const auto& jobs = m_fixture->queue.jobs();
        QCOMPARE(jobs.size(), 3);
        QCOMPARE(jobs.at(1)->sourceURL(), QUrl::fromLocalFile(QDir::current().filePath("a.wav")));
        QCOMPARE(jobs.at(2)->sourceURL(), QueueFixture::file("b.mp4"));
        for (LevelingJob* job : jobs) {
            job->setState(JobState::finished());
        }
        QCOMPARE(quit.count(), 0);
    }

    void aSecondInstanceHandsItsFilesToTheFirst() {
        SingleInstance first(QStringLiteral("ostrand"));
        QVERIFY(first.becomePrimary());
        QVERIFY(!SingleInstance(QStringLiteral("ostrand")).becomePrimary());
        QSignalSpy received(&first, &SingleInstance::filesReceived);

        QProcess second;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        second.setProcessEnvironment(environment);
        second.setWorkingDirectory(QString::fromStdString(m_runtime.path()));
        second.start(QStringLiteral(OSTRAND_EXECUTABLE),
                     {QStringLiteral("talk.wav"), QStringLiteral("/elsewhere/other clip.mov")});
        // The first answers from its event loop while the second waits.
        QTRY_COMPARE_WITH_TIMEOUT(received.count(), 1, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(second.state(), QProcess::NotRunning, 10000);
        QCOMPARE(second.exitStatus(), QProcess::NormalExit);
        QCOMPARE(second.exitCode(), 0);
        QCOMPARE(received.at(0).at(0).toStringList(),
                 (QStringList{QString::fromStdString(m_runtime / "talk.wav"),
                              QStringLiteral("/elsewhere/other clip.mov")}));
    }

private:
    void addJobs(const QList<JobState>& states) {
        QList<QUrl> files;
        for (int i = 0; i < states.size(); ++i) {
            files << QueueFixture::file(QStringLiteral("%1.wav").arg(i));
        }
        m_fixture->queue.add(files);
        for (int i = 0; i < states.size(); ++i) {
            m_fixture->queue.jobs().at(i)->setState(states.at(i));
        }
    }

    TempDir m_runtime;
    std::unique_ptr<QueueFixture> m_fixture;
    std::unique_ptr<OstrandApp> m_app;
};

QTEST_MAIN(AppShellTest)
#include "AppShellTest.moc"
