#pragma once

#include "AppUpdater.h"
#include "FileDialogPanels.h"

#include <QByteArrayList>
#include <QMessageBox>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QUrl>

#include <memory>

namespace ostrand {

class JobQueue;
class MainWindow;
class OstrandSettings;
class SettingsWindow;

// The application shell: the one queue, settings and updater, the main and
// settings windows, files handed to the application, and the quit rule.
// Closing the last window quits. Quitting, or closing the main window, while
// a job is waiting or running asks first: quit and cancel the jobs, or keep
// working with the window open. Never is the program left running without a
// window. The main window's place and size outlive the run. Main thread only.
class OstrandApp : public QObject {
    Q_OBJECT

public:
    OstrandApp(JobQueue& queue, OstrandSettings& settings, QObject* parent = nullptr);
    ~OstrandApp() override;

    // Paths or file URLs as the file system's bytes, as the command line or
    // another instance gives them; relative paths count from the current
    // folder.
    void openFiles(const QByteArrayList& arguments);
    void showMainWindow();
    void showSettings();

    // Quits at once when no job is waiting or running; otherwise asks
    // without blocking, and quits when the user agrees.
    void quit();
    // The question quit() or closing the main window asked, while it is open.
    QMessageBox* quitQuestion() const { return m_quitQuestion; }

    MainWindow& mainWindow() const { return *m_mainWindow; }
    SettingsWindow* settingsWindow() const;
    AppUpdater& updater() { return m_updater; }

signals:
    // The application should end now.
    void quitRequested();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    qsizetype unfinishedJobs() const;
    void askToQuit();
    void windowClosed();
    void showAbout();

    JobQueue& m_queue;
    OstrandSettings& m_settings;
    AppUpdater m_updater;
    FileDialogPanels m_panels;
    std::unique_ptr<MainWindow> m_mainWindow;
    QPointer<SettingsWindow> m_settingsWindow;
    QPointer<QMessageBox> m_quitQuestion;
    bool m_quitting = false;
};

// Runs the desktop application in `app`: one instance per user, the files on
// the command line queued. Returns the exit status.
int runDesktopApp(int argc, char** argv);

} // namespace ostrand
