#pragma once

#include "AppUpdater.h"
#include "FileDialogPanels.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QUrl>

#include <memory>

namespace ostrand {

class JobQueue;
class LevelingJob;
class MainWindow;
class OstrandSettings;
class SettingsWindow;

// The application shell: the one queue, settings and updater, the main and
// settings windows, files handed to the application, and the quit rule.
// Closing the last window quits at once unless a job is waiting or running;
// then the queue finishes its work, a desktop notification says what was
// leveled, and the application quits. Files that arrive meanwhile bring the
// main window back and call the quit off. Main thread only.
class OstrandApp : public QObject {
    Q_OBJECT

public:
    OstrandApp(JobQueue& queue, OstrandSettings& settings, QObject* parent = nullptr);
    ~OstrandApp() override;

    // Paths or URLs, as the command line or another instance gives them;
    // relative paths count from the current folder.
    void openFiles(const QStringList& arguments);
    void showMainWindow();
    void showSettings();

    // The quit rule: true when no job is waiting or running.
    bool shouldQuitAfterLastWindowClosed() const;
    bool isQuitPending() const { return m_quitWhenIdle; }
    // The notification's text once the work left at closing is done: the
    // files leveled since then, and how many failed.
    QString departureSummary() const;

    MainWindow& mainWindow() const { return *m_mainWindow; }
    SettingsWindow* settingsWindow() const;
    AppUpdater& updater() { return m_updater; }

signals:
    // The application should end now.
    void quitRequested();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void windowClosed();
    void queueProgressed();
    void showAbout();

    JobQueue& m_queue;
    OstrandSettings& m_settings;
    AppUpdater m_updater;
    FileDialogPanels m_panels;
    std::unique_ptr<MainWindow> m_mainWindow;
    QPointer<SettingsWindow> m_settingsWindow;
    bool m_quitWhenIdle = false;
    QList<QPointer<LevelingJob>> m_workAtClose;
};

// Runs the desktop application in `app`: one instance per user, the files on
// the command line queued. Returns the exit status.
int runDesktopApp(int argc, char** argv);

} // namespace ostrand
