#include "JobList.h"

#include "JobRow.h"
#include "Look.h"
#include "app/FilePaths.h"
#include "app/JobListModel.h"
#include "app/ReportText.h"

#include <QAction>
#include <QClipboard>
#include <QContextMenuEvent>
#include <QFrame>
#include <QGuiApplication>
#include <QLabel>
#include <QListView>
#include <QPainter>
#include <QStyledItemDelegate>
#include <QVBoxLayout>

namespace ostrand {

namespace {

// Rows are widgets over the items; the delegate only lends the view their
// heights and paints the selection beneath them.
class RowDelegate : public QStyledItemDelegate {
public:
    explicit RowDelegate(QListView* view)
        : QStyledItemDelegate(view)
        , m_view(view) {}

    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override {
        QWidget* row = m_view->indexWidget(index);
        if (!row) {
            return QStyledItemDelegate::sizeHint(option, index);
        }
        const int width = m_view->viewport()->width();
        const int height =
            row->hasHeightForWidth() ? row->heightForWidth(width) : row->sizeHint().height();
        return {width, height};
    }

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex&) const override {
        if (option.state & QStyle::State_Selected) {
            painter->fillRect(option.rect.adjusted(4, 1, -4, -1),
                              Look::selectionFill(option.palette));
        }
    }

    void rowChanged(const QModelIndex& index) { emit sizeHintChanged(index); }

private:
    QListView* m_view;
};

} // namespace

JobList::JobList(JobQueue& queue, JobListModel& model, FileRevealer* revealer, QWidget* parent)
    : QWidget(parent)
    , m_queue(queue)
    , m_model(model)
    , m_revealer(revealer)
    , m_view(new QListView(this)) {
    m_view->setObjectName(QStringLiteral("jobs"));
    m_view->setAccessibleName(tr("Jobs"));
    m_view->setModel(&model);
    m_view->setItemDelegate(new RowDelegate(m_view));
    m_view->setSelectionMode(QAbstractItemView::SingleSelection);
    m_view->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    m_view->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_view->setResizeMode(QListView::Adjust);
    m_view->setFrameShape(QFrame::NoFrame);
    m_view->setFocusPolicy(Qt::StrongFocus);
    setFocusProxy(m_view);
    m_view->setContextMenuPolicy(Qt::CustomContextMenu);
    // The window's colour shows through the list.
    m_view->viewport()->setAutoFillBackground(false);
    m_view->setStyleSheet(QStringLiteral("QListView { background: transparent; }"));

    auto* remove = new QAction(tr("Cancel or Remove"), m_view);
    remove->setShortcut(QKeySequence::Delete);
    remove->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(remove, &QAction::triggered, this, &JobList::deleteSelected);
    m_view->addAction(remove);

    auto* copy = new QAction(tr("Copy"), m_view);
    copy->setShortcut(QKeySequence::Copy);
    copy->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(copy, &QAction::triggered, this, &JobList::copySelected);
    m_view->addAction(copy);

    connect(m_view, &QListView::customContextMenuRequested, this, [this](const QPoint& at) {
        const QModelIndex index = m_view->indexAt(at);
        if (LevelingJob* job = m_model.jobAt(index)) {
            m_view->setCurrentIndex(index);
            emit contextMenuRequested(job, m_view->viewport()->mapToGlobal(at));
        }
    });
    // The menu key opens the current job's menu, wherever the pointer is.
    m_view->installEventFilter(this);
    connect(m_view, &QListView::activated, this, [this](const QModelIndex& index) {
        if (LevelingJob* job = m_model.jobAt(index)) {
            emit jobActivated(job);
        }
    });
    connect(&model, &QAbstractItemModel::rowsInserted, this,
            [this](const QModelIndex&, int first, int last) { addRows(first, last); });

    auto* hairline = new QFrame(this);
    hairline->setFrameShape(QFrame::HLine);
    hairline->setFrameShadow(QFrame::Plain);
    hairline->setForegroundRole(QPalette::Mid);
    hairline->setFixedHeight(1);

    auto* footer = new QLabel(tr("Drop more files anywhere in this window"), this);
    footer->setObjectName(QStringLiteral("footer"));
    footer->setAlignment(Qt::AlignCenter);
    footer->setContentsMargins(0, 8, 0, 8);
    footer->setAutoFillBackground(true);
    footer->setBackgroundRole(QPalette::Window);
    Look::style(footer, Look::Text::caption, Look::Tone::tertiary);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(m_view, 1);
    layout->addWidget(hairline);
    layout->addWidget(footer);

    addRows(0, model.rowCount() - 1);
}

JobRow* JobList::rowAt(int row) const {
    return qobject_cast<JobRow*>(m_view->indexWidget(m_model.index(row)));
}

LevelingJob* JobList::selectedJob() const {
    const QModelIndexList selected = m_view->selectionModel()->selectedIndexes();
    // The view makes the first row current, unselected, when it arrives;
    // keys act on it all the same.
    return m_model.jobAt(selected.isEmpty() ? m_view->currentIndex() : selected.first());
}

void JobList::addRows(int first, int last) {
    auto* delegate = static_cast<RowDelegate*>(m_view->itemDelegate());
    for (int row = first; row <= last; ++row) {
        const QModelIndex index = m_model.index(row);
        auto* widget = new JobRow(m_queue, *m_model.jobAt(index), m_revealer);
        m_view->setIndexWidget(index, widget);
        // The row covers its item, so the view never sees a double-click on it.
        widget->installEventFilter(this);
        const QPersistentModelIndex persistent(index);
        connect(widget, &JobRow::layoutChanged, delegate,
                [delegate, persistent] { delegate->rowChanged(persistent); });
        delegate->rowChanged(index);
    }
    // What was just added shows, even below a long list.
    if (first <= last) {
        m_view->scrollTo(m_model.index(last));
    }
}

bool JobList::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_view) {
        if (event->type() == QEvent::ContextMenu &&
            static_cast<QContextMenuEvent*>(event)->reason() == QContextMenuEvent::Keyboard) {
            const QModelIndex current = m_view->currentIndex();
            if (LevelingJob* job = m_model.jobAt(current)) {
                m_view->scrollTo(current);
                emit contextMenuRequested(
                    job, m_view->viewport()->mapToGlobal(m_view->visualRect(current).center()));
            }
            return true;
        }
        return QWidget::eventFilter(watched, event);
    }
    if (event->type() == QEvent::MouseButtonDblClick) {
        auto* row = qobject_cast<QWidget*>(watched);
        const QPoint at = m_view->viewport()->mapFromGlobal(row->mapToGlobal(QPoint(0, 0)));
        if (LevelingJob* job = m_model.jobAt(m_view->indexAt(at))) {
            emit jobActivated(job);
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void JobList::deleteSelected() {
    LevelingJob* job = selectedJob();
    if (!job) {
        return;
    }
    if (job->state().isActive()) {
        job->cancel();
    } else {
        m_queue.remove(job);
    }
}

void JobList::copySelected() {
    const LevelingJob* job = selectedJob();
    if (!job) {
        return;
    }
    // The lines the command line prints for a file.
    QString text =
        FilePaths::shownName(job->sourceURL()) + QStringLiteral(": ") + job->statusText();
    if (job->state().kind == JobState::Kind::finished && job->report()) {
        text += QStringLiteral("\n  ") + ReportText::detail(*job->report());
    }
    QGuiApplication::clipboard()->setText(text);
}

} // namespace ostrand
