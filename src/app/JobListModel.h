#pragma once

#include "JobQueue.h"

#include <QAbstractListModel>

namespace ostrand {

// The queue's jobs as a list model, one row per job in queue order. It
// follows the queue's row-level signals, so views keep their selection and
// scroll position across adds and removes, and it reports a job's changes as
// changes of that job's row. Main thread only.
class JobListModel : public QAbstractListModel {
    Q_OBJECT

public:
    enum Role {
        JobRole = Qt::UserRole + 1, // LevelingJob*
        StatusTextRole,             // QString
    };

    explicit JobListModel(JobQueue& queue, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    LevelingJob* jobAt(const QModelIndex& index) const;
    QModelIndex indexOf(const LevelingJob* job) const;

private:
    void watch(LevelingJob* job);
    void jobChanged(LevelingJob* job);

    JobQueue& m_queue;
};

} // namespace ostrand
