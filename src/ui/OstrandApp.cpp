#include "OstrandApp.h"

#include "AppInfo.h"
#include "AppTranslations.h"
#include "MainWindow.h"
#include "SettingsWindow.h"
#include "SingleInstance.h"
#include "app/DBusFileRevealer.h"
#include "app/FilePaths.h"
#include "app/JobQueue.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QFile>
#include <QMessageBox>
#include <QPushButton>

#include <algorithm>
#include <filesystem>

namespace ostrand {

namespace {

// A command-line argument as the file system's bytes: a file URL's path, or
// the path made absolute, since the instance it goes to has its own folder.
QByteArray argumentPath(const QByteArray& argument) {
    const QString text = QFile::decodeName(argument);
    if (QFile::encodeName(text) == argument) {
        if (const QUrl url(text); url.isLocalFile()) {
            return QByteArray(FilePaths::toPath(url).c_str());
        }
    }
    return QByteArray(std::filesystem::absolute(argument.toStdString()).lexically_normal().c_str());
}

} // namespace

OstrandApp::OstrandApp(JobQueue& queue, OstrandSettings& settings, QObject* parent)
    : QObject(parent)
    , m_queue(queue)
    , m_settings(settings)
    , m_updater(&settings)
    , m_mainWindow(std::make_unique<MainWindow>(queue, m_updater, queue.revealer())) {
    m_panels.setParentWindow(m_mainWindow.get());
    queue.setPanels(&m_panels);
    if (auto* revealer = dynamic_cast<DBusFileRevealer*>(queue.revealer())) {
        revealer->setFallback([](const QUrl& folder) { QDesktopServices::openUrl(folder); });
    }
    m_mainWindow->restoreGeometry(settings.mainWindowGeometry());
    m_mainWindow->installEventFilter(this);
    connect(m_mainWindow.get(), &MainWindow::settingsRequested, this, &OstrandApp::showSettings);
    connect(m_mainWindow.get(), &MainWindow::aboutRequested, this, &OstrandApp::showAbout);
    connect(m_mainWindow.get(), &MainWindow::quitRequested, this, &OstrandApp::quit);

    // Work arriving brings the main window back.
    connect(&queue, &JobQueue::jobsAdded, this, &OstrandApp::showMainWindow);
}

OstrandApp::~OstrandApp() {
    // Quitting leaves the window open: its last place is taken here.
    m_settings.setMainWindowGeometry(m_mainWindow->saveGeometry());
    m_queue.setPanels(nullptr);
    delete m_settingsWindow;
}

SettingsWindow* OstrandApp::settingsWindow() const {
    return m_settingsWindow;
}

void OstrandApp::openFiles(const QByteArrayList& arguments) {
    QList<QUrl> files;
    for (const QByteArray& argument : arguments) {
        files << FilePaths::toUrl(argumentPath(argument).toStdString());
    }
    m_queue.add(files);
}

void OstrandApp::showMainWindow() {
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
    m_settingsWindow->show();
    m_settingsWindow->raise();
    m_settingsWindow->activateWindow();
}

qsizetype OstrandApp::unfinishedJobs() const {
    const QList<LevelingJob*>& jobs = m_queue.jobs();
    return std::count_if(jobs.begin(), jobs.end(),
                         [](const LevelingJob* job) { return job->state().isActive(); });
}

void OstrandApp::quit() {
    if (unfinishedJobs() == 0) {
        emit quitRequested();
    } else {
        askToQuit();
    }
}

void OstrandApp::askToQuit() {
    showMainWindow();
    if (m_quitQuestion) {
        return;
    }
    const qsizetype count = unfinishedJobs();
    const int n = static_cast<int>(count);
    auto* box =
        new QMessageBox(QMessageBox::Question, tr("Quit Ostrand"),
                        count == 1 ? tr("A file is still being leveled.")
                                   : tr("%n files are still waiting or being leveled.", nullptr, n),
                        QMessageBox::NoButton, m_mainWindow.get());
    box->setObjectName(QStringLiteral("quitQuestion"));
    box->setInformativeText(tr("Quitting cancels them: the file in progress is not saved and "
                               "waiting files are not leveled."));
    QPushButton* quit = box->addButton(count == 1 ? tr("&Quit and Cancel 1 Job")
                                                  : tr("&Quit and Cancel %n Jobs", nullptr, n),
                                       QMessageBox::DestructiveRole);
    QPushButton* keep = box->addButton(tr("&Keep Working"), QMessageBox::RejectRole);
    box->setDefaultButton(keep);
    box->setEscapeButton(keep);
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::buttonClicked, this, [this, quit](QAbstractButton* clicked) {
        if (clicked == quit) {
            m_quitting = true;
            emit quitRequested();
        }
    });
    m_quitQuestion = box;
    box->open();
}

bool OstrandApp::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() != QEvent::Close) {
        return QObject::eventFilter(watched, event);
    }
    // The main window holds the jobs: closing it with work left is quitting.
    // Qt's own quit closes every window too, after the user agreed.
    if (watched == m_mainWindow.get() && !m_quitting && unfinishedJobs() > 0) {
        event->ignore();
        askToQuit();
        return true;
    }
    if (watched == m_mainWindow.get()) {
        m_settings.setMainWindowGeometry(m_mainWindow->saveGeometry());
    }
    // Decided once the window is gone, so that it no longer counts.
    QMetaObject::invokeMethod(this, &OstrandApp::windowClosed, Qt::QueuedConnection);
    return QObject::eventFilter(watched, event);
}

void OstrandApp::windowClosed() {
    const bool settingsOpen = m_settingsWindow && m_settingsWindow->isVisible();
    if (m_mainWindow->isVisible() || settingsOpen) {
        return;
    }
    if (unfinishedJobs() > 0) {
        // Never a program without a window while work remains.
        showMainWindow();
        return;
    }
    emit quitRequested();
}

void OstrandApp::showAbout() {
    auto* box = new QMessageBox(QMessageBox::NoIcon, tr("About Ostrand"),
                                QStringLiteral("Ostrand ") + AppInfo::version(), QMessageBox::Ok,
                                m_mainWindow.get());
    box->setInformativeText(
        tr("Levels the loudness of speech in audio and video files.\nVersion %1 (%2)")
            .arg(AppInfo::version(), AppInfo::buildNumber()) +
        QStringLiteral("\n\n") +
        tr("© 2026 The Ostrand developers. All rights reserved.\nBuilt with Qt and FFmpeg, "
           "which are free software under the GNU LGPL."));
    // Qt's licence asks for its own notice to be reachable.
    QPushButton* aboutQt = box->addButton(tr("About &Qt"), QMessageBox::HelpRole);
    connect(aboutQt, &QPushButton::clicked, qApp, &QApplication::aboutQt);
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
    const AppTranslations translations(QLocale::system());

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
                         app.openFiles(handed);
                     });
    app.showMainWindow();
    app.openFiles(files);
    return QApplication::exec();
}

} // namespace ostrand
