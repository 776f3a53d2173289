#pragma once

#include <QWidget>

class QListView;

namespace ostrand {

class FileRevealer;
class JobListModel;
class JobQueue;
class JobRow;
class LevelingJob;

// The job list: one JobRow per row of the model, in queue order, with the
// footer pinned under it. Selection and scroll position survive adds and
// removes because the model reports them row by row. Delete cancels the
// selected job while it is waiting or running, and removes it otherwise;
// Copy puts the selected job's name and report on the clipboard, as the
// command line prints them. Main thread only.
class JobList : public QWidget {
    Q_OBJECT

public:
    JobList(JobQueue& queue, JobListModel& model, FileRevealer* revealer,
            QWidget* parent = nullptr);

    QListView* view() const { return m_view; }
    JobRow* rowAt(int row) const;
    LevelingJob* selectedJob() const;

signals:
    // A context menu was asked for over this job, at a global position.
    void contextMenuRequested(ostrand::LevelingJob* job, const QPoint& globalPosition);
    // A job's row was double-clicked.
    void jobActivated(ostrand::LevelingJob* job);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void addRows(int first, int last);
    void deleteSelected();
    void copySelected();

    JobQueue& m_queue;
    JobListModel& m_model;
    FileRevealer* m_revealer;
    QListView* m_view;
};

} // namespace ostrand
