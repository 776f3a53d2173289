#include "JobRow.h"

#include "ElidedLabel.h"
#include "Look.h"
#include "app/FilePaths.h"
#include "app/FileRevealer.h"
#include "app/JobQueue.h"
#include "app/ReportText.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QMimeDatabase>
#include <QProgressBar>
#include <QToolButton>
#include <QVBoxLayout>

namespace ostrand {

namespace {

constexpr int iconSize = 36;
constexpr int progressSteps = 1000;
constexpr int failureLines = 2;

QIcon fileIcon(const QUrl& source) {
    const QMimeType type = QMimeDatabase().mimeTypeForFile(FilePaths::shownName(source),
                                                           QMimeDatabase::MatchExtension);
    const QString generic = type.name().startsWith(QLatin1String("video/"))
                                ? QStringLiteral("video-x-generic")
                                : QStringLiteral("audio-x-generic");
    return QIcon::fromTheme(type.iconName(), Look::icon(generic));
}

// Symbol sizes of the title-3 and title-2 text styles.
int symbolSize(Look::Text style) {
    return QFontMetrics(Look::font(style)).height() + 2;
}

} // namespace

JobRow::JobRow(JobQueue& queue, LevelingJob& job, FileRevealer* revealer, QWidget* parent)
    : QWidget(parent)
    , m_queue(queue)
    , m_job(job)
    , m_revealer(revealer)
    , m_icon(new QLabel(this))
    , m_name(new ElidedLabel(this))
    , m_progress(new QProgressBar(this))
    , m_status(new QLabel(this))
    , m_detail(new ElidedLabel(this, Qt::ElideRight))
    , m_notice(new QWidget(this))
    , m_noticeText(new QLabel(m_notice))
    , m_control(new QToolButton(this)) {
    const QString fileName = FilePaths::shownName(job.sourceURL());
    setAccessibleName(fileName);

    m_icon->setPixmap(fileIcon(job.sourceURL()).pixmap(iconSize, iconSize));
    m_icon->setFixedSize(iconSize, iconSize);
    m_icon->setAccessibleName(tr("File icon"));

    m_name->setObjectName(QStringLiteral("name"));
    m_name->setFullText(fileName);
    m_name->setFont(Look::font(Look::Text::body, QFont::Medium));
    m_name->setAccessibleName(fileName);

    m_progress->setObjectName(QStringLiteral("progress"));
    m_progress->setRange(0, progressSteps);
    m_progress->setTextVisible(false);
    m_progress->setFixedHeight(6);
    m_progress->setAccessibleName(tr("Progress"));

    m_status->setObjectName(QStringLiteral("status"));
    m_status->setTextFormat(Qt::PlainText);
    m_status->setAccessibleName(tr("Status"));

    m_detail->setObjectName(QStringLiteral("detail"));
    m_detail->setAccessibleName(tr("Details"));
    Look::style(m_detail, Look::Text::caption2, Look::Tone::tertiary);

    m_notice->setObjectName(QStringLiteral("notice"));
    auto* mark = new QLabel(m_notice);
    mark->setObjectName(QStringLiteral("warningMark"));
    mark->setAccessibleName(tr("Warning"));
    const int markSize = QFontMetrics(Look::font(Look::Text::caption)).height();
    mark->setPixmap(Look::icon(QStringLiteral("dialog-warning")).pixmap(markSize, markSize));
    mark->setFixedSize(markSize, markSize);
    m_noticeText->setObjectName(QStringLiteral("noticeText"));
    m_noticeText->setTextFormat(Qt::PlainText);
    m_noticeText->setWordWrap(true);
    Look::style(m_noticeText, Look::Text::caption, Look::Tone::warning);
    auto* notice = new QHBoxLayout(m_notice);
    notice->setContentsMargins(0, 0, 0, 0);
    notice->setSpacing(6);
    notice->addWidget(mark, 0, Qt::AlignTop);
    notice->addWidget(m_noticeText, 1);

    m_control->setObjectName(QStringLiteral("control"));
    m_control->setAutoRaise(true);
    m_control->setFocusPolicy(Qt::TabFocus);
    connect(m_control, &QToolButton::clicked, this, &JobRow::controlPressed);

    auto* text = new QVBoxLayout;
    text->setSpacing(4);
    text->addWidget(m_name);
    text->addWidget(m_progress);
    text->addWidget(m_status);
    text->addWidget(m_detail);
    text->addWidget(m_notice);

    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(8, 6, 8, 6);
    row->setSpacing(12);
    row->addWidget(m_icon, 0, Qt::AlignVCenter);
    row->addLayout(text, 1);
    row->addWidget(m_control, 0, Qt::AlignVCenter);

    connect(&job, &LevelingJob::stateChanged, this, &JobRow::refresh);
    connect(&job, &LevelingJob::progressChanged, this, &JobRow::refresh);
    connect(&job, &LevelingJob::reportChanged, this, &JobRow::refresh);
    connect(&job, &LevelingJob::statusTextChanged, this, &JobRow::refresh);
    refresh();
}

void JobRow::refresh() {
    using Kind = JobState::Kind;
    const Kind kind = m_job.state().kind;
    const bool hadDetail = !m_detail->isHidden();
    const QString hadNotice = m_notice->isHidden() ? QString() : m_noticeText->text();
    const bool hadProgress = !m_progress->isHidden();

    m_progress->setVisible(kind == Kind::running);
    m_progress->setValue(qRound(std::clamp(m_job.progress(), 0.0, 1.0) * progressSteps));

    m_status->setText(m_job.statusText());
    if (kind == Kind::failed) {
        Look::style(m_status, Look::Text::caption, Look::Tone::failure);
        m_status->setWordWrap(true);
        // Whatever does not fit two lines is cut off.
        m_status->setMaximumHeight(m_status->fontMetrics().lineSpacing() * failureLines);
    } else {
        Look::style(m_status, Look::Text::caption, Look::Tone::secondary);
        m_status->setWordWrap(false);
        m_status->setMaximumHeight(QWIDGETSIZE_MAX);
    }

    const auto& report = m_job.report();
    const bool showDetail = kind == Kind::finished && report.has_value();
    m_detail->setVisible(showDetail);
    m_detail->setFullText(showDetail ? ReportText::detail(*report) : QString());
    // What the output could not keep, and any warning, must not pass for
    // success: it stands on its own lines under a warning mark.
    const QString notice = showDetail ? ReportText::notesText(*report) : QString();
    m_noticeText->setText(notice);
    m_notice->setVisible(!notice.isEmpty());

    QString tip;
    Look::Text size = Look::Text::title3;
    switch (kind) {
    case Kind::waiting:
    case Kind::running:
        m_controlSymbol = QStringLiteral("process-stop");
        tip = tr("Cancel");
        break;
    case Kind::finished:
        m_controlSymbol = report ? QStringLiteral("folder-open") : QString();
        tip = tr("Show in File Manager");
        size = Look::Text::title2;
        break;
    case Kind::failed:
    case Kind::cancelled:
        m_controlSymbol = QStringLiteral("edit-delete");
        tip = tr("Remove");
        break;
    }
    m_control->setVisible(!m_controlSymbol.isEmpty());
    if (!m_controlSymbol.isEmpty()) {
        const int side = symbolSize(size);
        m_control->setIcon(Look::icon(m_controlSymbol));
        m_control->setIconSize({side, side});
        m_control->setToolTip(tip);
        m_control->setAccessibleName(tip);
    }
    setAccessibleDescription(notice.isEmpty()
                                 ? m_job.statusText()
                                 : m_job.statusText() + u'\n' + tr("Warning: %1").arg(notice));

    if (hadDetail != !m_detail->isHidden() || hadProgress != !m_progress->isHidden() ||
        hadNotice != notice || kind == Kind::failed) {
        emit layoutChanged();
    }
}

void JobRow::controlPressed() {
    switch (m_job.state().kind) {
    case JobState::Kind::waiting:
    case JobState::Kind::running:
        m_job.cancel();
        break;
    case JobState::Kind::finished:
        if (m_job.report() && m_revealer) {
            m_revealer->reveal(FilePaths::toUrl(m_job.report()->outputURL));
        }
        break;
    case JobState::Kind::failed:
    case JobState::Kind::cancelled:
        // The row goes with its job; nothing of it is touched after this.
        m_queue.remove(&m_job);
        break;
    }
}

} // namespace ostrand
