#pragma once

#include <QHash>
#include <QList>
#include <QMainWindow>
#include <QPointer>
#include <QUrl>

class QAction;
class QMenu;
class QStackedWidget;

namespace ostrand {

class AppUpdater;
class DropHighlight;
class FileRevealer;
class JobList;
class JobListModel;
class JobQueue;
class LevelingJob;
class LoudnessGraphWindow;
class WelcomePanel;

// The main window: the welcome panel while the queue is empty, the job list
// otherwise; the whole window takes dropped files; a toolbar adds files and
// clears finished jobs; the File and Help menus. Main thread only.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    MainWindow(JobQueue& queue, AppUpdater& updater, FileRevealer* revealer,
               QWidget* parent = nullptr);
    ~MainWindow() override;

    // Queues the audio and video files among `files` and in the folders
    // among them, in order. True when at least one was kept (the drop is
    // accepted), false when none was.
    bool addDroppedFiles(const QList<QUrl>& files);
    // The non-blocking file chooser for several files of the accepted types.
    void openFiles();
    // The context menu of a job's row, built for its state of the moment;
    // the caller owns it.
    QMenu* contextMenu(LevelingJob& job, QWidget* parent = nullptr);
    // The loudness graph of a finished job, one window per job, closed with
    // the job's row; nothing for a job without one.
    LoudnessGraphWindow* showLoudnessGraph(LevelingJob& job);

    JobList* jobList() const { return m_jobList; }
    QAction* openAction() const { return m_openAction; }
    QAction* clearFinishedAction() const { return m_clearAction; }
    QAction* checkForUpdatesAction() const { return m_checkAction; }

signals:
    void settingsRequested();
    void aboutRequested();
    void quitRequested();

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void buildMenus();
    void showContent();
    void reveal(const QList<QUrl>& files);

    JobQueue& m_queue;
    AppUpdater& m_updater;
    FileRevealer* m_revealer;
    JobListModel* m_model;
    QStackedWidget* m_stack;
    WelcomePanel* m_welcome;
    JobList* m_jobList;
    DropHighlight* m_highlight;
    QAction* m_openAction;
    QAction* m_clearAction;
    QAction* m_checkAction = nullptr;
    QHash<const LevelingJob*, QPointer<LoudnessGraphWindow>> m_graphs;
};

} // namespace ostrand
