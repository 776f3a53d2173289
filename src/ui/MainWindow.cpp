#include "MainWindow.h"

#include "AppUpdater.h"
#include "DropHighlight.h"
#include "FileDialogPanels.h"
#include "JobList.h"
#include "Look.h"
#include "LoudnessGraphWindow.h"
#include "WelcomePanel.h"
#include "app/FilePaths.h"
#include "app/FileRevealer.h"
#include "app/JobListModel.h"
#include "app/JobQueue.h"

#include <QAction>
#include <QApplication>
#include <QDesktopServices>
#include <QDragEnterEvent>
#include <QFile>
#include <QFileDialog>
#include <QMenu>
#include <QMenuBar>
#include <QMimeData>
#include <QPointer>
#include <QStackedWidget>
#include <QToolBar>

namespace ostrand {

namespace {

bool carriesFiles(const QMimeData* data) {
    if (!data || !data->hasUrls()) {
        return false;
    }
    const QList<QUrl> urls = data->urls();
    return std::any_of(urls.begin(), urls.end(), [](const QUrl& url) { return url.isLocalFile(); });
}

} // namespace

MainWindow::MainWindow(JobQueue& queue, AppUpdater& updater, FileRevealer* revealer,
                       QWidget* parent)
    : QMainWindow(parent)
    , m_queue(queue)
    , m_updater(updater)
    , m_revealer(revealer)
    , m_model(new JobListModel(queue, this))
    , m_stack(new QStackedWidget(this))
    , m_welcome(new WelcomePanel(m_stack))
    , m_jobList(new JobList(queue, *m_model, revealer, m_stack))
    , m_highlight(nullptr)
    , m_openAction(new QAction(Look::icon(QStringLiteral("list-add")), tr("&Open\u2026"), this))
    , m_clearAction(
          new QAction(Look::icon(QStringLiteral("edit-clear")), tr("C&lear Finished"), this)) {
    setObjectName(QStringLiteral("main"));
    setWindowTitle(QStringLiteral("Ostrand"));
    setMinimumSize(460, 360);
    resize(520, 440);
    setAcceptDrops(true);

    m_stack->addWidget(m_welcome);
    m_stack->addWidget(m_jobList);
    setCentralWidget(m_stack);
    m_highlight = new DropHighlight(m_stack);

    m_openAction->setShortcut(QKeySequence::Open);
    m_openAction->setToolTip(tr("Choose files to level"));
    connect(m_openAction, &QAction::triggered, this, &MainWindow::openFiles);
    m_clearAction->setToolTip(tr("Remove finished items from the list"));
    m_clearAction->setVisible(queue.hasFinished());
    connect(m_clearAction, &QAction::triggered, &queue, &JobQueue::clearFinished);
    connect(&queue, &JobQueue::hasFinishedChanged, this,
            [this] { m_clearAction->setVisible(m_queue.hasFinished()); });

    auto* toolbar = addToolBar(tr("Toolbar"));
    toolbar->setObjectName(QStringLiteral("toolbar"));
    toolbar->setMovable(false);
    toolbar->setFloatable(false);
    toolbar->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    toolbar->setIconSize({16, 16});
    toolbar->setContextMenuPolicy(Qt::PreventContextMenu);
    toolbar->addAction(m_openAction);
    toolbar->addAction(m_clearAction);

    buildMenus();

    connect(m_welcome, &WelcomePanel::chooseFilesRequested, this, &MainWindow::openFiles);
    connect(m_jobList, &JobList::contextMenuRequested, this,
            [this](LevelingJob* job, const QPoint& at) {
                QMenu* menu = contextMenu(*job, this);
                menu->setAttribute(Qt::WA_DeleteOnClose);
                menu->popup(at);
            });
    connect(m_jobList, &JobList::jobActivated, this,
            [this](LevelingJob* job) { showLoudnessGraph(*job); });
    connect(m_model, &QAbstractItemModel::rowsInserted, this, &MainWindow::showContent);
    connect(m_model, &QAbstractItemModel::rowsRemoved, this, &MainWindow::showContent);
    showContent();
}

MainWindow::~MainWindow() = default;

void MainWindow::buildMenus() {
    QMenu* file = menuBar()->addMenu(tr("&File"));
    file->addAction(m_openAction);
    file->addAction(m_clearAction);
    QAction* settings = file->addAction(tr("&Settings\u2026"));
    settings->setObjectName(QStringLiteral("settingsAction"));
    settings->setShortcut(QKeySequence(QStringLiteral("Ctrl+,")));
    settings->setMenuRole(QAction::PreferencesRole);
    connect(settings, &QAction::triggered, this, &MainWindow::settingsRequested);
    file->addSeparator();
    QAction* quit = file->addAction(tr("&Quit"));
    quit->setObjectName(QStringLiteral("quitAction"));
    quit->setShortcut(QKeySequence::Quit);
    quit->setMenuRole(QAction::QuitRole);
    connect(quit, &QAction::triggered, this, &MainWindow::quitRequested);

    QMenu* help = menuBar()->addMenu(tr("&Help"));
    QAction* about = help->addAction(tr("&About Ostrand"));
    connect(about, &QAction::triggered, this, &MainWindow::aboutRequested);
    m_checkAction = help->addAction(tr("Check for &Updates\u2026"));
    m_checkAction->setEnabled(m_updater.canCheckForUpdates());
    connect(&m_updater, &AppUpdater::canCheckForUpdatesChanged, m_checkAction,
            [this] { m_checkAction->setEnabled(m_updater.canCheckForUpdates()); });
    connect(m_checkAction, &QAction::triggered, this, [this] {
        raise();
        activateWindow();
        m_updater.checkForUpdates();
    });
}

void MainWindow::showContent() {
    QWidget* shown = m_model->rowCount() == 0 ? static_cast<QWidget*>(m_welcome) : m_jobList;
    if (m_stack->currentWidget() == shown) {
        return;
    }
    // Keyboard focus moves along instead of vanishing with the hidden page.
    const bool hadFocus = m_stack->currentWidget()->isAncestorOf(QApplication::focusWidget());
    m_stack->setCurrentWidget(shown);
    if (hadFocus) {
        shown->setFocus(Qt::OtherFocusReason);
    }
}

bool MainWindow::addDroppedFiles(const QList<QUrl>& files) {
    const QList<QUrl> brought = JobQueue::withFolderContents(files);
    QList<QUrl> kept;
    std::copy_if(brought.begin(), brought.end(), std::back_inserter(kept), &JobQueue::isAcceptable);
    m_queue.add(kept);
    return !kept.isEmpty();
}

void MainWindow::openFiles() {
    auto* dialog = new QFileDialog(this, tr("Choose video or audio files to level."));
    dialog->setObjectName(QStringLiteral("openPanel"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setFileMode(QFileDialog::ExistingFiles);
    dialog->setAcceptMode(QFileDialog::AcceptOpen);
    dialog->setNameFilters(
        {tr("Video and audio files (%1)").arg(JobQueue::acceptedPatterns().join(u' ')),
         tr("All files (*)")});
    whenChosen(dialog, this, [this](const QList<QUrl>& files) { m_queue.add(files); });
    dialog->open();
}

QMenu* MainWindow::contextMenu(LevelingJob& job, QWidget* parent) {
    auto* menu = new QMenu(parent);
    menu->setObjectName(QStringLiteral("jobMenu"));
    const auto& report = job.report();
    if (job.state().kind == JobState::Kind::finished && report) {
        QList<QUrl> outputs{FilePaths::toUrl(report->outputURL)};
        if (report->audioSidecarURL) {
            outputs << FilePaths::toUrl(*report->audioSidecarURL);
        }
        connect(menu->addAction(tr("Show in File &Manager")), &QAction::triggered, this,
                [this, outputs] { reveal(outputs); });
        const QUrl output = outputs.first();
        connect(menu->addAction(tr("&Open")), &QAction::triggered, this,
                [output] { QDesktopServices::openUrl(output); });
        if (report->series) {
            QPointer<LevelingJob> shown(&job);
            connect(menu->addAction(tr("Show Loudness &Graph")), &QAction::triggered, this,
                    [this, shown] {
                        if (shown) {
                            showLoudnessGraph(*shown);
                        }
                    });
        }
        menu->addSeparator();
    }
    QPointer<LevelingJob> target(&job);
    const JobState::Kind kind = job.state().kind;
    if (kind == JobState::Kind::failed || kind == JobState::Kind::cancelled) {
        connect(menu->addAction(tr("&Retry")), &QAction::triggered, this,
                [this, target] { m_queue.retry(target); });
    }
    const QString title = job.state().isActive() ? tr("&Cancel") : tr("Re&move");
    QAction* remove = menu->addAction(title);
    connect(remove, &QAction::triggered, this, [this, target] {
        if (target) {
            m_queue.remove(target);
        }
    });
    return menu;
}

LoudnessGraphWindow* MainWindow::showLoudnessGraph(LevelingJob& job) {
    const auto& report = job.report();
    if (job.state().kind != JobState::Kind::finished || !report || !report->series) {
        return nullptr;
    }
    QPointer<LoudnessGraphWindow>& window = m_graphs[&job];
    if (!window) {
        window = new LoudnessGraphWindow(
            report->series, FilePaths::shown(report->outputURL.filename().string()),
            QFile::decodeName(report->outputURL.parent_path().c_str()), this);
        // The series goes with the job's row.
        connect(&job, &QObject::destroyed, window, &QWidget::close);
        connect(&job, &QObject::destroyed, this, [this, key = &job] { m_graphs.remove(key); });
        window->resize(window->sizeHint());
    }
    window->show();
    window->raise();
    window->activateWindow();
    return window;
}

void MainWindow::reveal(const QList<QUrl>& files) {
    if (m_revealer) {
        m_revealer->reveal(files);
    }
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
    if (!carriesFiles(event->mimeData())) {
        event->ignore();
        return;
    }
    event->acceptProposedAction();
    m_highlight->show();
    m_highlight->raise();
}

void MainWindow::dragMoveEvent(QDragMoveEvent* event) {
    if (carriesFiles(event->mimeData())) {
        event->acceptProposedAction();
    }
}

void MainWindow::dragLeaveEvent(QDragLeaveEvent* event) {
    m_highlight->hide();
    event->accept();
}

void MainWindow::dropEvent(QDropEvent* event) {
    m_highlight->hide();
    if (addDroppedFiles(event->mimeData()->urls())) {
        event->acceptProposedAction();
    } else {
        event->ignore();
    }
}

} // namespace ostrand
