#include "JobListModel.h"

#include "FilePaths.h"
#include "ReportText.h"

namespace ostrand {

JobListModel::JobListModel(JobQueue& queue, QObject* parent)
    : QAbstractListModel(parent)
    , m_queue(queue) {
    connect(&queue, &JobQueue::jobsAboutToBeAdded, this,
            [this](int first, int last) { beginInsertRows({}, first, last); });
    connect(&queue, &JobQueue::jobsAdded, this, [this](int first, int last) {
        for (int row = first; row <= last; ++row) {
            watch(m_queue.jobs().at(row));
        }
        endInsertRows();
    });
    connect(&queue, &JobQueue::jobAboutToBeRemoved, this, [this](int row) {
        // A removed running job lives on until its run ends; it must not
        // report into rows that are no longer its own.
        disconnect(m_queue.jobs().at(row), nullptr, this, nullptr);
        beginRemoveRows({}, row, row);
    });
    connect(&queue, &JobQueue::jobRemoved, this, [this](int) { endRemoveRows(); });
    for (LevelingJob* job : queue.jobs()) {
        watch(job);
    }
}

int JobListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(m_queue.jobs().size());
}

QVariant JobListModel::data(const QModelIndex& index, int role) const {
    LevelingJob* job = jobAt(index);
    if (!job) {
        return {};
    }
    switch (role) {
    case Qt::DisplayRole:
    case Qt::AccessibleTextRole:
        return FilePaths::shownName(job->sourceURL());
    case Qt::ToolTipRole:
        return FilePaths::shown(FilePaths::toPath(job->sourceURL()).string());
    case StatusTextRole:
        return job->statusText();
    case Qt::AccessibleDescriptionRole:
        // The row's widgets are not part of the list's accessible tree: the
        // description carries what they show.
        if (const auto& report = job->report();
            job->state().kind == JobState::Kind::finished && report) {
            const QString notes = ReportText::notesText(*report);
            return job->statusText() + u'\n' + ReportText::detail(*report) +
                   (notes.isEmpty() ? QString() : u'\n' + notes);
        }
        return job->statusText();
    case JobRole:
        return QVariant::fromValue(job);
    default:
        return {};
    }
}

QHash<int, QByteArray> JobListModel::roleNames() const {
    QHash<int, QByteArray> names = QAbstractListModel::roleNames();
    names.insert(JobRole, "job");
    names.insert(StatusTextRole, "statusText");
    return names;
}

LevelingJob* JobListModel::jobAt(const QModelIndex& index) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) {
        return nullptr;
    }
    return m_queue.jobs().at(index.row());
}

QModelIndex JobListModel::indexOf(const LevelingJob* job) const {
    const auto row = m_queue.jobs().indexOf(job);
    return row < 0 ? QModelIndex() : index(static_cast<int>(row));
}

void JobListModel::watch(LevelingJob* job) {
    const auto changed = [this, job] { jobChanged(job); };
    connect(job, &LevelingJob::stateChanged, this, changed);
    connect(job, &LevelingJob::progressChanged, this, changed);
    connect(job, &LevelingJob::reportChanged, this, changed);
    connect(job, &LevelingJob::statusTextChanged, this, changed);
}

void JobListModel::jobChanged(LevelingJob* job) {
    const QModelIndex index = indexOf(job);
    if (index.isValid()) {
        emit dataChanged(index, index);
    }
}

} // namespace ostrand
