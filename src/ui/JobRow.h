#pragma once

#include <QWidget>

class QLabel;
class QProgressBar;
class QToolButton;

namespace ostrand {

class ElidedLabel;
class FileRevealer;
class JobQueue;
class LevelingJob;

// One job in the job list: the file's icon and name, a status that follows
// the job through its states, a finished job's figures and, under a warning
// mark, what its output could not keep or where it falls short, and one
// button at the end whose meaning depends on the state (cancel, reveal the
// output, or remove the job). Main thread only; the job must outlive the row.
class JobRow : public QWidget {
    Q_OBJECT

public:
    JobRow(JobQueue& queue, LevelingJob& job, FileRevealer* revealer, QWidget* parent = nullptr);

    LevelingJob& job() const { return m_job; }

    // The trailing button's symbol name ("process-stop", "folder-open",
    // "edit-delete"), or empty when none is shown.
    QString controlSymbol() const { return m_controlSymbol; }

signals:
    // The row's height may have changed.
    void layoutChanged();

private:
    void refresh();
    void controlPressed();

    JobQueue& m_queue;
    LevelingJob& m_job;
    FileRevealer* m_revealer;
    QLabel* m_icon;
    ElidedLabel* m_name;
    QProgressBar* m_progress;
    QLabel* m_status;
    ElidedLabel* m_detail;
    QWidget* m_notice;
    QLabel* m_noticeText;
    QToolButton* m_control;
    QString m_controlSymbol;
};

} // namespace ostrand
