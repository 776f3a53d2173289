#include "LoudnessGraphWindow.h"

#include "FileDialogPanels.h"
#include "Look.h"
#include "WindowKeys.h"
#include "dsp/Loudness.h"

#include <QDir>
#include <QEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPainter>
#include <QPushButton>
#include <QVBoxLayout>

namespace ostrand {

namespace {

QString signedNumber(double value) {
    QString text = QString::number(value, 'f', 1);
    if (text == QLatin1String("-0.0")) {
        text = QStringLiteral("0.0");
    }
    text.replace(QLatin1Char('-'), QChar(0x2212));
    return value > 0.05 ? QLatin1Char('+') + text : text;
}

QString loudnessText(double lufs) {
    return Loudness::isSilent(lufs) ? LoudnessPlotView::tr("silent")
                                    : signedNumber(lufs) + QStringLiteral(" LUFS");
}

} // namespace

LoudnessPlotView::LoudnessPlotView(std::shared_ptr<const LevelingSeries> series, QWidget* parent)
    : QWidget(parent)
    , m_series(std::move(series)) {
    setObjectName(QStringLiteral("plot"));
    setMouseTracking(true);
    setAttribute(Qt::WA_OpaquePaintEvent);
    setAccessibleName(tr("Loudness graph"));
}

QSize LoudnessPlotView::sizeHint() const {
    return {900, 360};
}

QSize LoudnessPlotView::minimumSizeHint() const {
    return {480, 240};
}

LoudnessPlot::Theme LoudnessPlotView::theme() const {
    return Look::isDark(palette()) ? LoudnessPlot::Theme::dark : LoudnessPlot::Theme::light;
}

const LoudnessPlot& LoudnessPlotView::plot() const {
    if (!m_plot || m_plot->size() != QSizeF(size())) {
        m_plot.emplace(m_series, QSizeF(size()), theme(), QString(), font());
    }
    return *m_plot;
}

QString LoudnessPlotView::readoutText(const LoudnessPlot::Readout& r) {
    const QString separator = QStringLiteral(" \u00b7 ");
    QString text = LoudnessPlot::timeLabel(r.seconds, true);
    if (!r.outputLoudness) {
        return text + separator + loudnessText(r.inputLoudness);
    }
    text += separator + tr("input %1").arg(loudnessText(r.inputLoudness));
    text += separator + tr("output %1").arg(loudnessText(*r.outputLoudness));
    text += separator + tr("gain %1 dB").arg(signedNumber(*r.gain));
    text += separator + tr("limiter %1 dB").arg(signedNumber(-*r.limiterReduction));
    if (r.pause) {
        text += separator + tr("pause");
    }
    return text;
}

void LoudnessPlotView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const LoudnessPlot& p = plot();
    p.paint(painter);
    if (m_pointerX) {
        const QRectF lanes = p.loudnessLane().united(p.gainLane());
        QColor line = LoudnessPlot::colors(theme()).text;
        line.setAlpha(140);
        painter.setPen(QPen(line, 1.0));
        const double x = std::round(*m_pointerX) + 0.5;
        painter.drawLine(QPointF(x, lanes.top()), QPointF(x, lanes.bottom()));
    }
}

void LoudnessPlotView::resizeEvent(QResizeEvent* event) {
    m_plot.reset();
    QWidget::resizeEvent(event);
}

void LoudnessPlotView::changeEvent(QEvent* event) {
    // The desktop switched between light and dark, or the font changed.
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange) {
        m_plot.reset();
        update();
    }
    QWidget::changeEvent(event);
}

void LoudnessPlotView::mouseMoveEvent(QMouseEvent* event) {
    const double x = event->position().x();
    const auto readout = plot().readoutAt(x);
    m_pointerX = readout ? std::optional<double>(x) : std::nullopt;
    update();
    emit readoutChanged(readout ? readoutText(*readout) : QString());
}

void LoudnessPlotView::leaveEvent(QEvent* event) {
    m_pointerX.reset();
    update();
    emit readoutChanged({});
    QWidget::leaveEvent(event);
}

LoudnessGraphWindow::LoudnessGraphWindow(std::shared_ptr<const LevelingSeries> series,
                                         QString outputName, QString outputFolder, QWidget* parent)
    : QWidget(parent, Qt::Window)
    , m_view(new LoudnessPlotView(std::move(series), this))
    , m_readout(new QLabel(this))
    , m_export(new QPushButton(tr("&Export\u2026"), this))
    , m_outputName(std::move(outputName))
    , m_outputFolder(std::move(outputFolder)) {
    setObjectName(QStringLiteral("loudnessGraph"));
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowTitle(tr("Loudness \u2014 %1").arg(m_outputName));
    closeWithKeys(this);

    const QString hint = tr("Point at the graph to read its values");
    m_readout->setObjectName(QStringLiteral("readout"));
    m_readout->setText(hint);
    m_readout->setTextInteractionFlags(Qt::TextSelectableByMouse);
    Look::style(m_readout, Look::Text::caption, Look::Tone::secondary);
    connect(m_view, &LoudnessPlotView::readoutChanged, this, [this, hint](const QString& text) {
        m_readout->setText(text.isEmpty() ? hint : text);
    });

    m_export->setObjectName(QStringLiteral("export"));
    m_export->setToolTip(tr("Save the graph as a PNG or SVG picture"));
    connect(m_export, &QPushButton::clicked, this, &LoudnessGraphWindow::chooseExportFile);

    auto* bar = new QHBoxLayout;
    bar->setContentsMargins(12, 0, 12, 10);
    bar->addWidget(m_readout, 1);
    bar->addWidget(m_export);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    layout->addWidget(m_view, 1);
    layout->addLayout(bar);
}

void LoudnessGraphWindow::chooseExportFile() {
    auto* dialog = new QFileDialog(this, tr("Export Loudness Graph"));
    dialog->setObjectName(QStringLiteral("exportPanel"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setAcceptMode(QFileDialog::AcceptSave);
    dialog->setFileMode(QFileDialog::AnyFile);
    dialog->setMimeTypeFilters({QStringLiteral("image/png"), QStringLiteral("image/svg+xml")});
    dialog->setDefaultSuffix(QStringLiteral("png"));
    connect(dialog, &QFileDialog::filterSelected, dialog, [dialog](const QString& filter) {
        dialog->setDefaultSuffix(filter.contains(QLatin1String("svg")) ? QStringLiteral("svg")
                                                                       : QStringLiteral("png"));
    });
    if (!m_outputFolder.isEmpty()) {
        dialog->setDirectory(m_outputFolder);
    }
    dialog->selectFile(QFileInfo(m_outputName).completeBaseName() + QStringLiteral(".png"));
    whenChosen(dialog, this,
               [this](const QList<QUrl>& files) { exportTo(files.first().toLocalFile()); });
    dialog->open();
}

bool LoudnessGraphWindow::exportTo(const QString& path) {
    QString error;
    if (LoudnessPlot::save(path, m_view->series(), m_view->size(), m_view->theme(), m_outputName,
                           &error)) {
        return true;
    }
    auto* box = new QMessageBox(QMessageBox::Warning, tr("Export Loudness Graph"),
                                tr("The graph could not be saved."), QMessageBox::Ok, this);
    box->setObjectName(QStringLiteral("exportError"));
    box->setInformativeText(QDir::toNativeSeparators(path) + QStringLiteral(": ") + error);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
    return false;
}

} // namespace ostrand
