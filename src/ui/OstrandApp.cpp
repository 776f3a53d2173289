#include "OstrandApp.h"

#include "AppInfo.h"
#include "DesktopNotifier.h"
#include "MainWindow.h"
#include "SettingsWindow.h"
#include "SingleInstance.h"
#include "app/DBusFileRevealer.h"
#include "app/JobQueue.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMessageBox>

#include <algorithm>
#include <filesystem>

namespace ostrand {

namespace {

QUrl fileUrl(const QString& argument) {
    const QUrl url(argument);
    if (url.isLocalFile()) {
        return url;
    }
    return QUrl::fromLocalFile(QFileInfo(argument).absoluteFilePath());
}

// A command-line argument as the file system's bytes: a file URL's path, or
// the path made absolute, since the instance it goes to has its own folder.
QByteArray argumentPath(const QByteArray& argument) {
    const QString text = QFile::decodeName(argument);
    if (QFile::encodeName(text) == argument) {
        if (const QUrl url(text); url.isLocalFile()) {
            return QFile::encodeName(url.toLocalFile());
        }
    }
    return QByteArray(std::filesystem::absolute(argument.toStdString()).lexically_normal().c_str());
}

// Qt holds file names as text, in which a name that is not valid UTF-8
// becomes another name: such files are refused rather than leveling a
// different file of that other name.
QStringList openableFiles(const QByteArrayList& paths) {
    QStringList files;
    for (const QByteArray& path : paths) {
        const QString file = QFile::decodeName(path);
        if (QFile::encodeName(file) == path) {
            files << file;
        } else {
            qWarning("Ostrand cannot open %s: its name is not valid UTF-8",
                     path.toPercentEncoding("/ ").constData());
        }
    }
    return files;
}

} // namespace

OstrandApp::OstrandApp(JobQueue& queue, OstrandSettings& settings, QObject* parent)
    : QObject(parent)
    , m_queue(queue)
    , m_settings(settings)
    , m_mainWindow(std::make_unique<MainWindow>(queue, m_updater, queue.revealer())) {
    m_panels.setParentWindow(m_mainWindow.get());
    queue.setPanels(&m_panels);
    if (auto* revealer = dynamic_cast<DBusFileRevealer*>(queue.revealer())) {
        revealer->setFallback([](const QUrl& folder) { QDesktopServices::openUrl(folder); });
    }
    m_mainWindow->installEventFilter(this);
    connect(m_mainWindow.get(), &MainWindow::settingsRequested, this, &OstrandApp::showSettings);
    connect(m_mainWindow.get(), &MainWindow::aboutRequested, this, &OstrandApp::showAbout);
    connect(m_mainWindow.get(), &MainWindow::quitRequested, this, &OstrandApp::quitRequested);

    // Work arriving brings the main window back.
    connect(&queue, &JobQueue::jobsAdded, this, [this](int first, int last) {
        for (int row = first; row <= last; ++row) {
            connect(m_queue.jobs().at(row), &LevelingJob::stateChanged, this,
                    &OstrandApp::queueProgressed);
        }
        showMainWindow();
    });
    connect(&queue, &JobQueue::jobRemoved, this, &OstrandApp::queueProgressed);
}

OstrandApp::~OstrandApp() {
    m_queue.setPanels(nullptr);
    delete m_settingsWindow;
}

SettingsWindow* OstrandApp::settingsWindow() const {
    return m_settingsWindow;
}

void OstrandApp::openFiles(const QStringList& arguments) {
    QList<QUrl> files;
    for (const QString& argument : arguments) {
        files << fileUrl(argument);
    }
    m_queue.add(files);
}

void OstrandApp::showMainWindow() {
    m_quitWhenIdle = false;
    m_mainWindow->show();
    m_mainWindow->raise();
    m_mainWindow->activateWindow();
}

void OstrandApp::showSettings() {
    if (!m_settingsWindow) {
        m_settingsWindow = new SettingsWindow(m_settings, m_updater);
        m_settingsWindow->setAttribute(Qt::WA_DeleteOnClose);
        m_settingsWindow->installEventFilter(this);
    }
    m_quitWhenIdle = false;
    m_settingsWindow->show();
    m_settingsWindow->raise();
    m_settingsWindow->activateWindow();
}

bool OstrandApp::shouldQuitAfterLastWindowClosed() const {
    const QList<LevelingJob*>& jobs = m_queue.jobs();
    return std::none_of(jobs.begin(), jobs.end(),
                        [](const LevelingJob* job) { return job->state().isActive(); });
}

bool OstrandApp::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::Close && event->isAccepted()) {
        // Decided once the window is gone, so that it no longer counts.
        QMetaObject::invokeMethod(this, &OstrandApp::windowClosed, Qt::QueuedConnection);
    }
    return QObject::eventFilter(watched, event);
}

void OstrandApp::windowClosed() {
    const bool settingsOpen = m_settingsWindow && m_settingsWindow->isVisible();
    if (m_mainWindow->isVisible() || settingsOpen) {
        return;
    }
    if (shouldQuitAfterLastWindowClosed()) {
        emit quitRequested();
        return;
    }
    m_quitWhenIdle = true;
    m_workAtClose.clear();
    for (LevelingJob* job : m_queue.jobs()) {
        if (job->state().isActive()) {
            m_workAtClose << job;
        }
    }
}

void OstrandApp::queueProgressed() {
    if (!m_quitWhenIdle || !shouldQuitAfterLastWindowClosed()) {
        return;
    }
    DesktopNotifier::notify(QStringLiteral("Ostrand finished"), departureSummary());
    emit quitRequested();
}

QString OstrandApp::departureSummary() const {
    QStringList leveled;
    int failed = 0;
    for (const QPointer<LevelingJob>& job : m_workAtClose) {
        if (!job) {
            continue;
        }
        if (job->state().kind == JobState::Kind::finished && job->report()) {
            leveled << QFile::decodeName(
                QByteArray::fromStdString(job->report()->outputURL.filename().string()));
        } else if (job->state().kind == JobState::Kind::failed) {
            ++failed;
        }
    }
    QString summary = leveled.isEmpty() ? QStringLiteral("No file was leveled.")
                                        : QStringLiteral("Leveled: ") + leveled.join(u", ") + u'.';
    if (failed > 0) {
        summary += failed == 1 ? QStringLiteral(" 1 file failed.")
                               : QStringLiteral(" %1 files failed.").arg(failed);
    }
    return summary;
}

void OstrandApp::showAbout() {
    auto* box = new QMessageBox(QMessageBox::NoIcon, QStringLiteral("About Ostrand"),
                                QStringLiteral("Ostrand ") + AppInfo::version(), QMessageBox::Ok,
                                m_mainWindow.get());
    box->setInformativeText(
        QStringLiteral("Levels the loudness of speech in audio and video files.\nVersion %1 (%2)")
            .arg(AppInfo::version(), AppInfo::buildNumber()));
    box->setIconPixmap(QApplication::windowIcon().pixmap(64, 64));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

int runDesktopApp(int argc, char** argv) {
    QApplication application(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Ostrand"));
    QApplication::setApplicationName(QStringLiteral("Ostrand"));
    QApplication::setApplicationVersion(AppInfo::version());
    QApplication::setDesktopFileName(QStringLiteral("ostrand"));
    QApplication::setWindowIcon(
        QIcon::fromTheme(QStringLiteral("ostrand"), QIcon(QStringLiteral(":/icons/ostrand.svg"))));
    // The shell's own rule decides when closing a window ends the program.
    QApplication::setQuitOnLastWindowClosed(false);

    // The raw arguments, not QApplication::arguments(): those are text, which
    // cannot hold every name the file system can. QApplication took out its
    // own options already.
    QByteArrayList files;
    for (int i = 1; i < argc; ++i) {
        files << argumentPath(argv[i]);
    }
    SingleInstance instance;
    if (!instance.becomePrimary()) {
        return instance.handOver(files) ? 0 : 1;
    }

    OstrandApp app(JobQueue::shared(), OstrandSettings::shared());
    QObject::connect(&app, &OstrandApp::quitRequested, &application, &QApplication::quit,
                     Qt::QueuedConnection);
    QObject::connect(&instance, &SingleInstance::filesReceived, &app,
                     [&app](const QByteArrayList& handed) {
                         app.showMainWindow();
                         app.openFiles(openableFiles(handed));
                     });
    app.showMainWindow();
    app.openFiles(openableFiles(files));
    return QApplication::exec();
}

} // namespace ostrand
