#include "UiTestSupport.h"
#include "app/JobListModel.h"
#include "ui/MainWindow.h"
#include "ui/OstrandApp.h"
#include "ui/SettingsWindow.h"
#include "ui/SingleInstance.h"

#include <QAction>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>
#include <QScopeGuard>
#include <QtTest>

#include <unistd.h>

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

    // Closing the main window or File > Quit; with work left, the answer given.
    void closingOrQuitting_data() {
        QTest::addColumn<QList<JobState>>("states");
        QTest::addColumn<bool>("byMenu");
        QTest::addColumn<QString>("answer"); // empty: nothing is asked
        QTest::addColumn<bool>("quits");
        QTest::newRow("empty queue, closed") << QList<JobState>{} << false << QString() << true;
        QTest::newRow("only ended jobs, Quit")
            << QList<JobState>{JobState::finished(), JobState::failed(QStringLiteral("x")),
                               JobState::cancelled()}
            << true << QString() << true;
        QTest::newRow("one waiting job, closed, kept")
            << QList<JobState>{JobState::finished(), JobState::waiting()} << false
            << "&Keep Working" << false;
        QTest::newRow("one running job, Quit, kept")
            << QList<JobState>{JobState::running()} << true << "&Keep Working" << false;
        QTest::newRow("one running job, Quit, quit")
            << QList<JobState>{JobState::running()} << true << "&Quit and Cancel 1 Job" << true;
        QTest::newRow("two jobs, closed, quit")
            << QList<JobState>{JobState::running(), JobState::waiting()} << false
            << "&Quit and Cancel 2 Jobs" << true;
    }
    void closingOrQuitting() {
        QFETCH(QList<JobState>, states);
        QFETCH(bool, byMenu);
        QFETCH(QString, answer);
        QFETCH(bool, quits);
        addJobs(states);
        MainWindow& window = m_app->mainWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        QSignalSpy quit(m_app.get(), &OstrandApp::quitRequested);
        if (byMenu) {
            window.findChild<QAction*>(QStringLiteral("quitAction"))->trigger();
        } else {
            window.close();
        }
        QMessageBox* question = m_app->quitQuestion();
        QCOMPARE(question != nullptr, !answer.isEmpty());
        if (question) {
            QVERIFY(window.isVisible());
            const auto buttons = question->buttons();
            const auto chosen = std::find_if(buttons.begin(), buttons.end(), [&](auto* button) {
                return button->text() == answer;
            });
            QVERIFY(chosen != buttons.end());
            QCOMPARE(buttons.size(), 2);
            (*chosen)->click();
        }
        QTRY_COMPARE(quit.count(), quits ? 1 : 0);
        QTest::qWait(20);
        QCOMPARE(quit.count(), quits ? 1 : 0);
        QCOMPARE(m_fixture->queue.jobs().size(), states.size());
        if (!quits) {
            QVERIFY(window.isVisible());
        }
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
        QSignalSpy quit(m_app.get(), &OstrandApp::quitRequested);
        m_app->showSettings();
        m_app->mainWindow().close();
        QVERIFY(!m_app->mainWindow().isVisible());

        m_app->openFiles({"notes.txt"});
        QVERIFY(!m_app->mainWindow().isVisible());

        m_app->openFiles({"a.wav", QueueFixture::file("b.mp4").toEncoded()});
        QVERIFY(m_app->mainWindow().isVisible());
        const auto& jobs = m_fixture->queue.jobs();
        QCOMPARE(jobs.size(), 2);
        QCOMPARE(jobs.at(0)->sourceURL(), QUrl::fromLocalFile(QDir::current().filePath("a.wav")));
        QCOMPARE(jobs.at(1)->sourceURL(), QueueFixture::file("b.mp4"));
        QTest::qWait(20);
        QCOMPARE(quit.count(), 0);
    }

    void aSecondInstanceHandsItsFilesToTheFirst_data() {
        QTest::addColumn<QByteArrayList>("arguments");
        QTest::addColumn<QByteArrayList>("received");
        QTest::addColumn<QStringList>("shown"); // the jobs' names in the list
        const QByteArray here(m_runtime.path().c_str());
        QTest::newRow("relative and absolute")
            << QByteArrayList{"talk.wav", "/elsewhere/other clip.mov"}
            << QByteArrayList{here + "/talk.wav", "/elsewhere/other clip.mov"}
            << QStringList{"talk.wav", "other clip.mov"};
        QTest::newRow("newline in a name")
            << QByteArrayList{"/elsewhere/two\nlines.wav"}
            << QByteArrayList{"/elsewhere/two\nlines.wav"} << QStringList{"two\nlines.wav"};
        QTest::newRow("name not UTF-8")
            << QByteArrayList{"caf\xe9.wav"} << QByteArrayList{here + "/caf\xe9.wav"}
            << QStringList{"caf\\xe9.wav"};
    }
    void aSecondInstanceHandsItsFilesToTheFirst() {
        QFETCH(QByteArrayList, arguments);
        QFETCH(QByteArrayList, received);
        QFETCH(QStringList, shown);
        SingleInstance first(QStringLiteral("ostrand"));
        QVERIFY(first.becomePrimary());
        QVERIFY(!SingleInstance(QStringLiteral("ostrand")).becomePrimary());
        QSignalSpy spy(&first, &SingleInstance::filesReceived);
        connect(&first, &SingleInstance::filesReceived, m_app.get(), &OstrandApp::openFiles);

        // QProcess passes arguments as text; the shell's printf passes any bytes.
        QString script = QStringLiteral("exec \"$0\"");
        for (const QByteArray& argument : arguments) {
            script += QStringLiteral(" \"$(printf '");
            for (const char byte : argument) {
                script += QStringLiteral("\\%1").arg(static_cast<unsigned char>(byte), 3, 8,
                                                     QLatin1Char('0'));
            }
            script += QStringLiteral("')\"");
        }
        QProcess second;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        second.setProcessEnvironment(environment);
        second.setWorkingDirectory(QString::fromStdString(m_runtime.path()));
        second.start(QStringLiteral("/bin/sh"),
                     {QStringLiteral("-c"), script, QStringLiteral(OSTRAND_EXECUTABLE)});
        // The first answers from its event loop while the second waits.
        QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 1, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(second.state(), QProcess::NotRunning, 10000);
        QCOMPARE(second.exitStatus(), QProcess::NormalExit);
        QCOMPARE(second.exitCode(), 0);
        QCOMPARE(spy.at(0).at(0).value<QByteArrayList>(), received);
        // Each file becomes a job on that very file.
        const JobListModel list(m_fixture->queue);
        QByteArrayList queued;
        QStringList names;
        for (int row = 0; row < list.rowCount(); ++row) {
            queued << QByteArray(
                FilePaths::toPath(list.jobAt(list.index(row))->sourceURL()).c_str());
            names << list.index(row).data().toString();
        }
        QCOMPARE(queued, received);
        QCOMPARE(names, shown);
    }

    // Instances meet only in a folder nobody else may enter; without one,
    // each runs on its own. Permissions stand in for another owner (tests
    // may run as root).
    void anUnsafeMeetingFolderIsRefused_data() {
        QTest::addColumn<int>("runtimeMode");  // -1: no XDG_RUNTIME_DIR
        QTest::addColumn<int>("fallbackMode"); // -1: not there yet
        QTest::addColumn<bool>("meets");
        QTest::newRow("open runtime folder") << 0777 << -1 << true;
        QTest::newRow("no runtime folder, open fallback") << -1 << 0777 << false;
        QTest::newRow("no runtime folder, group-readable fallback") << -1 << 0750 << false;
    }
    void anUnsafeMeetingFolderIsRefused() {
        namespace fs = std::filesystem;
        QFETCH(int, runtimeMode);
        QFETCH(int, fallbackMode);
        QFETCH(bool, meets);
        const TempDir root;
        const fs::path runtime = root / "runtime";
        const fs::path temp = root / "tmp";
        const fs::path fallback = temp / ("ostrand-" + std::to_string(::geteuid()));
        fs::create_directories(runtime);
        fs::create_directories(temp);
        const QByteArray savedRuntime = qgetenv("XDG_RUNTIME_DIR");
        const auto restore = qScopeGuard([&] {
            qputenv("XDG_RUNTIME_DIR", savedRuntime);
            qunsetenv("TMPDIR");
        });
        if (runtimeMode < 0) {
            qunsetenv("XDG_RUNTIME_DIR");
        } else {
            fs::permissions(runtime, fs::perms(runtimeMode));
            qputenv("XDG_RUNTIME_DIR", runtime.c_str());
        }
        qputenv("TMPDIR", temp.c_str());
        if (fallbackMode >= 0) {
            fs::create_directory(fallback);
            fs::permissions(fallback, fs::perms(fallbackMode));
        }

        SingleInstance first(QStringLiteral("unsafe"));
        SingleInstance second(QStringLiteral("unsafe"));
        QVERIFY(first.becomePrimary());
        QCOMPARE(!second.becomePrimary(), meets);
        QVERIFY(!fs::exists(runtime / "unsafe.lock"));
        QVERIFY(!fs::exists(temp / "unsafe.lock"));
        QCOMPARE(fs::exists(fallback / "unsafe.lock"), meets);
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
