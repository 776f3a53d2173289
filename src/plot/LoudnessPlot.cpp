#include "LoudnessPlot.h"

#include <QFileInfo>
#include <QFontInfo>
#include <QFontMetricsF>
#include <QImage>
#include <QPainter>
#include <QPainterPath>
#include <QSaveFile>
#include <QSvgGenerator>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>

namespace ostrand {

namespace {

constexpr double rightMargin = 16.0;
constexpr double tickLength = 4.0;
constexpr double legendSwatch = 18.0;

// Round steps for the time axis, seconds; past the table, whole hours.
constexpr std::array<double, 15> timeSteps{0.1, 0.2, 0.5, 1,   2,   5,   10,  15,
                                           30,  60,  120, 300, 600, 900, 1800};

QColor withAlpha(QColor color, int alpha) {
    color.setAlpha(alpha);
    return color;
}

double clampTo(double v, double lo, double hi) {
    return std::min(std::max(v, lo), hi);
}

} // namespace

LoudnessPlot::Colors LoudnessPlot::colors(Theme theme) {
    if (theme == Theme::dark) {
        return {QColor(0x1e, 0x1f, 0x22), QColor(0x36, 0x38, 0x3d), QColor(0x6b, 0x6f, 0x78),
                QColor(0xc4, 0xc7, 0xcc), QColor(0x8e, 0x94, 0x9e), QColor(0x4d, 0xa3, 0xff),
                QColor(0x5c, 0xc2, 0x6a), QColor(0xff, 0xa7, 0x26), QColor(0xf2, 0x55, 0x55),
                QColor(255, 255, 255, 20)};
    }
    return {QColor(0xff, 0xff, 0xff), QColor(0xe6, 0xe8, 0xeb), QColor(0x9a, 0x9e, 0xa6),
            QColor(0x3c, 0x40, 0x46), QColor(0x9a, 0xa0, 0xa8), QColor(0x1a, 0x5f, 0xd0),
            QColor(0x2e, 0x8b, 0x3c), QColor(0xe0, 0x7b, 0x00), QColor(0xd3, 0x2f, 0x2f),
            QColor(0, 0, 0, 16)};
}

LoudnessPlot::LoudnessPlot(std::shared_ptr<const LevelingSeries> series, QSizeF size, Theme theme,
                           QString title, QFont font)
    : m_series(series ? std::move(series) : std::make_shared<const LevelingSeries>())
    , m_size(size)
    , m_colors(colors(theme))
    , m_title(std::move(title))
    , m_font(std::move(font)) {
    // Pixels, not points: a PNG and an SVG must come out alike.
    if (m_font.pixelSize() <= 0) {
        const double points = m_font.pointSizeF() > 0 ? m_font.pointSizeF() : 8.25;
        m_font.setPixelSize(std::max(9, static_cast<int>(std::lround(points * 4.0 / 3.0))));
    }
    const LevelingSeries& s = *m_series;
    m_duration = static_cast<double>(s.frames()) * s.frameSeconds;
    if (!(m_duration > 0.0)) {
        m_duration = std::max(s.duration, 1.0);
    }
    layOut();
}

void LoudnessPlot::layOut() {
    const QFontMetricsF metrics(m_font);
    const double line = metrics.height();
    const double top = std::ceil(line + 14.0);
    const double bottom = std::ceil(tickLength + line + 8.0);
    const double left =
        std::ceil(metrics.horizontalAdvance(QStringLiteral("\u221260")) + line + 14.0);
    const double width = std::max(m_size.width() - left - rightMargin, 1.0);
    const double height = std::max(m_size.height() - top - bottom, 2.0);
    const LevelingSeries& s = *m_series;
    if (s.isLeveled()) {
        const double gap = std::ceil(line * 0.9);
        const double loudness = std::floor((height - gap) * 0.62);
        m_loudnessLane = QRectF(left, top, width, loudness);
        m_gainLane = QRectF(left, top + loudness + gap, width, height - loudness - gap);
    } else {
        m_loudnessLane = QRectF(left, top, width, height);
        m_gainLane = QRectF();
    }
    m_columns = std::max(1, static_cast<int>(std::ceil(width)));

    m_input = envelope(s.inputLoudness);
    if (!s.isLeveled()) {
        return;
    }
    m_output = envelope(s.outputLoudness);
    m_gain = envelope(s.gain);
    m_limiter = envelope(s.limiterReduction);

    // The gain lane spans whole steps, enough of them to hold the gain and
    // the limiter's dips, few enough to label.
    double lo = 0.0;
    double hi = 0.0;
    for (std::size_t c = 0; c < m_gain.low.size(); ++c) {
        lo = std::min(
            {lo, static_cast<double>(m_gain.low[c]), -static_cast<double>(m_limiter.high[c])});
        hi = std::max(hi, static_cast<double>(m_gain.high[c]));
    }
    const double maxTicks = std::max(2.0, std::floor(m_gainLane.height() / (line * 1.4)));
    double step = gainStep;
    while ((std::ceil((hi + 0.5) / step) - std::floor((lo - 0.5) / step)) > maxTicks &&
           step < 60.0) {
        step += gainStep;
    }
    m_gainTickStep = step;
    // Half a dB of room, so that a gain at its limit does not run along the edge.
    m_gainTop = std::max(step, std::ceil((hi + 0.5) / step) * step);
    m_gainBottom = std::min(-step, std::floor((lo - 0.5) / step) * step);

    m_pauseColumns.assign(static_cast<std::size_t>(m_columns), 0);
    const std::size_t n = s.active.size();
    for (int c = 0; c < m_columns && n > 0; ++c) {
        const auto [f0, f1] = framesOf(c, n);
        const auto inactive = std::count(s.active.begin() + static_cast<std::ptrdiff_t>(f0),
                                         s.active.begin() + static_cast<std::ptrdiff_t>(f1), 0);
        // Quarters of pause: where short pauses crowd a column, it is
        // shaded as much as they fill it.
        m_pauseColumns[static_cast<std::size_t>(c)] = static_cast<unsigned char>(
            std::lround(4.0 * static_cast<double>(inactive) / static_cast<double>(f1 - f0)));
    }
}

std::pair<std::size_t, std::size_t> LoudnessPlot::framesOf(int column, std::size_t n) const {
    // At least one frame, so that columns between two frames of a short
    // file hold the frame they lie in.
    const double fs = m_series->frameSeconds;
    const double t0 = secondsAt(m_loudnessLane.left() + column);
    const double t1 = secondsAt(m_loudnessLane.left() + column + 1);
    auto f0 = static_cast<std::size_t>(std::max(0.0, std::floor(t0 / fs)));
    auto f1 = static_cast<std::size_t>(std::max(0.0, std::floor(t1 / fs)));
    f0 = std::min(f0, n - 1);
    f1 = std::clamp(f1, f0 + 1, n);
    return {f0, f1};
}

LoudnessPlot::Envelope LoudnessPlot::envelope(const std::vector<float>& values) const {
    Envelope env;
    const std::size_t n = values.size();
    if (n == 0) {
        return env;
    }
    env.low.resize(static_cast<std::size_t>(m_columns));
    env.high.resize(static_cast<std::size_t>(m_columns));
    for (int c = 0; c < m_columns; ++c) {
        const auto [f0, f1] = framesOf(c, n);
        const auto [lo, hi] = std::minmax_element(values.begin() + static_cast<std::ptrdiff_t>(f0),
                                                  values.begin() + static_cast<std::ptrdiff_t>(f1));
        env.low[static_cast<std::size_t>(c)] = *lo;
        env.high[static_cast<std::size_t>(c)] = *hi;
    }
    return env;
}

double LoudnessPlot::xFor(double seconds) const {
    return m_loudnessLane.left() + seconds / m_duration * m_loudnessLane.width();
}

double LoudnessPlot::secondsAt(double x) const {
    return (x - m_loudnessLane.left()) / m_loudnessLane.width() * m_duration;
}

double LoudnessPlot::yForLoudness(double lufs) const {
    const double v = clampTo(lufs, loudnessBottom, loudnessTop);
    return m_loudnessLane.top() +
           (loudnessTop - v) / (loudnessTop - loudnessBottom) * m_loudnessLane.height();
}

double LoudnessPlot::yForGain(double db) const {
    const double v = clampTo(db, m_gainBottom, m_gainTop);
    return m_gainLane.top() + (m_gainTop - v) / (m_gainTop - m_gainBottom) * m_gainLane.height();
}

std::optional<LoudnessPlot::Readout> LoudnessPlot::readoutAt(double x) const {
    const LevelingSeries& s = *m_series;
    if (s.frames() == 0 || x < m_loudnessLane.left() || x > m_loudnessLane.right()) {
        return std::nullopt;
    }
    Readout r;
    r.seconds = clampTo(secondsAt(x), 0.0, m_duration);
    const auto i = std::min(static_cast<std::size_t>(r.seconds / s.frameSeconds), s.frames() - 1);
    r.inputLoudness = s.inputLoudness[i];
    if (s.isLeveled()) {
        r.outputLoudness = s.outputLoudness[i];
        r.gain = s.gain[i];
        r.limiterReduction = s.limiterReduction[i];
        r.pause = s.active[i] == 0;
    }
    return r;
}

double LoudnessPlot::tickStep(double duration, double width, double minSpacing) {
    const double least = duration * minSpacing / std::max(width, 1.0);
    for (const double step : timeSteps) {
        if (step >= least) {
            return step;
        }
    }
    return std::ceil(least / 3600.0) * 3600.0;
}

QString LoudnessPlot::timeLabel(double seconds, bool tenths) {
    const double scale = tenths ? 10.0 : 1.0;
    const auto units = static_cast<long long>(std::llround(std::max(seconds, 0.0) * scale));
    const long long whole = tenths ? units / 10 : units;
    QString text = QStringLiteral("%1:%2:%3")
                       .arg(whole / 3600)
                       .arg(whole / 60 % 60, 2, 10, QLatin1Char('0'))
                       .arg(whole % 60, 2, 10, QLatin1Char('0'));
    if (tenths) {
        text += QLatin1Char('.') + QString::number(units % 10);
    }
    return text;
}

void LoudnessPlot::paint(QPainter& painter) const {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setFont(m_font);
    painter.fillRect(QRectF(QPointF(), m_size), m_colors.background);
    paintTimeAxis(painter, true);
    paintPauses(painter);
    paintLoudnessLane(painter);
    if (m_series->isLeveled()) {
        paintGainLane(painter);
    }
    paintTimeAxis(painter, false);
    paintLegend(painter);
    painter.restore();
}

void LoudnessPlot::paintPauses(QPainter& painter) const {
    if (!m_series->isLeveled()) {
        return;
    }
    const auto columns = static_cast<int>(m_pauseColumns.size());
    for (int c = 0; c < columns;) {
        const unsigned char quarters = m_pauseColumns[static_cast<std::size_t>(c)];
        int end = c + 1;
        while (end < columns && m_pauseColumns[static_cast<std::size_t>(end)] == quarters) {
            ++end;
        }
        if (quarters > 0) {
            const double x0 = m_loudnessLane.left() + c;
            const double x1 = std::min(m_loudnessLane.left() + end, m_loudnessLane.right());
            QColor shade = m_colors.pause;
            shade.setAlphaF(shade.alphaF() * static_cast<float>(quarters) / 4.0f);
            for (const QRectF& lane : {m_loudnessLane, m_gainLane}) {
                painter.fillRect(QRectF(x0, lane.top(), x1 - x0, lane.height()), shade);
            }
        }
        c = end;
    }
}

void LoudnessPlot::paintCurve(QPainter& painter, const std::vector<float>& values,
                              const Envelope& env, const QRectF& lane, double top, double bottom,
                              const QColor& color, double width) const {
    if (env.low.empty()) {
        return;
    }
    const auto y = [&](double v) {
        return lane.top() + (top - clampTo(v, bottom, top)) / (top - bottom) * lane.height();
    };
    painter.save();
    painter.setClipRect(lane.adjusted(0, -width, 0, width));
    painter.setPen(QPen(color, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    const LevelingSeries& s = *m_series;
    if (values.size() <= env.low.size()) {
        // Fewer frames than columns: a line through the frames themselves.
        QPolygonF points;
        for (std::size_t i = 0; i < values.size(); ++i) {
            points << QPointF(xFor((static_cast<double>(i) + 0.5) * s.frameSeconds), y(values[i]));
        }
        if (points.size() == 1) {
            points << points.front() + QPointF(0.01, 0.0);
        }
        painter.drawPolyline(points);
    } else {
        // The band between each column's lowest and highest value, outlined:
        // a line where they agree, a filled band where the level swings.
        QPolygonF band;
        const std::size_t columns = env.low.size();
        for (std::size_t c = 0; c < columns; ++c) {
            band << QPointF(lane.left() + static_cast<double>(c) + 0.5, y(env.high[c]));
        }
        for (std::size_t c = columns; c-- > 0;) {
            band << QPointF(lane.left() + static_cast<double>(c) + 0.5, y(env.low[c]));
        }
        painter.setBrush(color);
        painter.drawPolygon(band);
    }
    painter.restore();
}

// Grid lines labelled left of the lane, from `bottom` to `top`, and the
// unit turned along the axis. A gain scale signs its labels and marks 0 dB
// with the axis colour.
void LoudnessPlot::paintScale(QPainter& painter, const QRectF& lane, double bottom, double top,
                              double step, const std::function<double(double)>& yFor, bool gains,
                              const QString& unit) const {
    const QFontMetricsF metrics(m_font);
    for (double v = bottom; v <= top + 1e-9; v += step) {
        const double y = std::round(yFor(v)) + 0.5;
        painter.setPen(QPen(gains && v == 0.0 ? m_colors.axis : m_colors.grid, 1.0));
        painter.drawLine(QPointF(lane.left(), y), QPointF(lane.right(), y));
        painter.setPen(m_colors.text);
        const QString label = v < 0            ? QStringLiteral("\u2212%1").arg(-v)
                              : gains && v > 0 ? QStringLiteral("+%1").arg(v)
                                               : QString::number(v);
        painter.drawText(
            QRectF(lane.left() - 60.0 - 6.0, y - metrics.height() / 2.0, 60.0, metrics.height()),
            Qt::AlignRight | Qt::AlignVCenter, label);
    }
    painter.save();
    painter.translate(metrics.height() / 2.0 + 3.0, lane.center().y());
    painter.rotate(-90.0);
    painter.setPen(m_colors.text);
    painter.drawText(
        QRectF(-lane.height() / 2.0, -metrics.height() / 2.0, lane.height(), metrics.height()),
        Qt::AlignCenter, unit);
    painter.restore();
}

void LoudnessPlot::paintLoudnessLane(QPainter& painter) const {
    const QRectF& lane = m_loudnessLane;
    const QFontMetricsF metrics(m_font);
    const double step =
        lane.height() / ((loudnessTop - loudnessBottom) / loudnessStep) < metrics.height() * 1.2
            ? 2.0 * loudnessStep
            : loudnessStep;
    paintScale(
        painter, lane, loudnessBottom, loudnessTop, step,
        [this](double v) { return yForLoudness(v); }, false, QStringLiteral("LUFS"));

    const LevelingSeries& s = *m_series;
    // The source as a soft area with its outline, the output over it; alone,
    // the source takes the output's stronger colour.
    const QColor sourceColor = s.isLeveled() ? m_colors.input : m_colors.output;
    if (!m_input.high.empty()) {
        QPolygonF area;
        area << QPointF(lane.left(), lane.bottom());
        if (s.frames() <= m_input.high.size()) {
            for (std::size_t i = 0; i < s.frames(); ++i) {
                area << QPointF(xFor((static_cast<double>(i) + 0.5) * s.frameSeconds),
                                yForLoudness(s.inputLoudness[i]));
            }
            area << QPointF(xFor(static_cast<double>(s.frames()) * s.frameSeconds), lane.bottom());
        } else {
            for (std::size_t c = 0; c < m_input.high.size(); ++c) {
                area << QPointF(lane.left() + static_cast<double>(c) + 0.5,
                                yForLoudness(m_input.high[c]));
            }
            area << QPointF(lane.right(), lane.bottom());
        }
        painter.save();
        painter.setClipRect(lane);
        painter.setPen(Qt::NoPen);
        painter.setBrush(withAlpha(sourceColor, s.isLeveled() ? 60 : 40));
        painter.drawPolygon(area);
        painter.restore();
    }
    paintCurve(painter, s.inputLoudness, m_input, lane, loudnessTop, loudnessBottom, sourceColor,
               s.isLeveled() ? 1.2 : 1.6);
    if (s.targetLufs) {
        const double y = yForLoudness(*s.targetLufs);
        painter.setPen(QPen(m_colors.target, 1.2, Qt::DashLine));
        painter.drawLine(QPointF(lane.left(), y), QPointF(lane.right(), y));
    }
    paintCurve(painter, s.outputLoudness, m_output, lane, loudnessTop, loudnessBottom,
               m_colors.output, 1.6);

    painter.setPen(QPen(m_colors.axis, 1.0));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(lane.adjusted(0.5, 0.5, -0.5, -0.5));
}

void LoudnessPlot::paintGainLane(QPainter& painter) const {
    const QRectF& lane = m_gainLane;
    const QFontMetricsF metrics(m_font);
    paintScale(
        painter, lane, m_gainBottom, m_gainTop, m_gainTickStep,
        [this](double v) { return yForGain(v); }, true, QStringLiteral("dB"));

    // The limiter's reduction hangs from 0 dB, as deep as it went.
    if (!m_limiter.high.empty()) {
        const double zero = yForGain(0.0);
        QPolygonF dips;
        dips << QPointF(lane.left(), zero);
        for (std::size_t c = 0; c < m_limiter.high.size(); ++c) {
            dips << QPointF(lane.left() + static_cast<double>(c) + 0.5,
                            yForGain(-static_cast<double>(m_limiter.high[c])));
        }
        dips << QPointF(lane.right(), zero);
        painter.save();
        painter.setClipRect(lane);
        painter.setPen(Qt::NoPen);
        painter.setBrush(m_colors.limiter);
        painter.drawPolygon(dips);
        painter.restore();
    }
    paintCurve(painter, m_series->gain, m_gain, lane, m_gainTop, m_gainBottom, m_colors.gain, 1.6);

    painter.setPen(QPen(m_colors.axis, 1.0));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(lane.adjusted(0.5, 0.5, -0.5, -0.5));
}

void LoudnessPlot::paintTimeAxis(QPainter& painter, bool grid) const {
    const QFontMetricsF metrics(m_font);
    const QRectF lowest = m_series->isLeveled() ? m_gainLane : m_loudnessLane;
    const double widest = metrics.horizontalAdvance(QStringLiteral("0:00:00.0"));
    const double step = tickStep(m_duration, m_loudnessLane.width(), widest + 36.0);
    const bool tenths = step < 1.0;
    const auto count = static_cast<long long>(std::floor(m_duration / step + 1e-9));
    for (long long k = 0; k <= count; ++k) {
        const double t = static_cast<double>(k) * step;
        const double x = std::round(xFor(t)) + 0.5;
        if (grid) {
            painter.setPen(QPen(m_colors.grid, 1.0));
            for (const QRectF& lane : {m_loudnessLane, m_gainLane}) {
                if (!lane.isEmpty() && k > 0) {
                    painter.drawLine(QPointF(x, lane.top()), QPointF(x, lane.bottom()));
                }
            }
            continue;
        }
        painter.setPen(QPen(m_colors.axis, 1.0));
        painter.drawLine(QPointF(x, lowest.bottom()), QPointF(x, lowest.bottom() + tickLength));
        const QString label = timeLabel(t, tenths);
        const double w = metrics.horizontalAdvance(label) + 2.0;
        const double left = clampTo(x - w / 2.0, 0.0, m_size.width() - w - 2.0);
        painter.setPen(m_colors.text);
        painter.drawText(QRectF(left, lowest.bottom() + tickLength + 2.0, w, metrics.height()),
                         Qt::AlignCenter, label);
    }
}

void LoudnessPlot::paintLegend(QPainter& painter) const {
    const QFontMetricsF metrics(m_font);
    const LevelingSeries& s = *m_series;
    struct Item {
        QString text;
        QColor color;
        enum { line, dashed, area } kind;
    };
    std::vector<Item> items;
    if (s.isLeveled()) {
        items.push_back({tr("Input"), m_colors.input, Item::line});
        items.push_back({tr("Output"), m_colors.output, Item::line});
    } else {
        items.push_back({tr("Short-term loudness"), m_colors.output, Item::line});
    }
    if (s.targetLufs) {
        items.push_back({tr("Target %1 LUFS")
                             .arg(QString::number(*s.targetLufs, 'f', 1).replace(u'-', u'\u2212')),
                         m_colors.target, Item::dashed});
    }
    if (s.isLeveled()) {
        items.push_back({tr("Gain"), m_colors.gain, Item::line});
        items.push_back({tr("Limiter"), m_colors.limiter, Item::area});
        items.push_back({tr("Pause"), withAlpha(m_colors.text, 40), Item::area});
    }
    const double spacing = 14.0;
    double total = 0.0;
    for (const Item& item : items) {
        total += legendSwatch + 5.0 + metrics.horizontalAdvance(item.text) + spacing;
    }
    total -= spacing;
    const double y = std::round((m_loudnessLane.top() - metrics.height()) / 2.0);
    double x = std::max(m_loudnessLane.left(), m_loudnessLane.right() - total);
    if (!m_title.isEmpty()) {
        const double room = x - m_loudnessLane.left() - spacing;
        if (room > metrics.horizontalAdvance(QStringLiteral("M…"))) {
            QFont bold = m_font;
            bold.setBold(true);
            painter.setFont(bold);
            const QString title = QFontMetricsF(bold).elidedText(m_title, Qt::ElideMiddle, room);
            painter.setPen(m_colors.text);
            painter.drawText(QRectF(m_loudnessLane.left(), y, room, metrics.height()),
                             Qt::AlignLeft | Qt::AlignVCenter, title);
            painter.setFont(m_font);
        }
    }
    for (const Item& item : items) {
        const double mid = y + metrics.height() / 2.0;
        switch (item.kind) {
        case Item::line:
            painter.setPen(QPen(item.color, 2.0, Qt::SolidLine, Qt::RoundCap));
            painter.drawLine(QPointF(x + 1.0, mid), QPointF(x + legendSwatch - 1.0, mid));
            break;
        case Item::dashed:
            painter.setPen(QPen(item.color, 1.5, Qt::DashLine));
            painter.drawLine(QPointF(x, mid), QPointF(x + legendSwatch, mid));
            break;
        case Item::area:
            painter.fillRect(QRectF(x + 2.0, mid - 5.0, legendSwatch - 4.0, 10.0), item.color);
            break;
        }
        x += legendSwatch + 5.0;
        painter.setPen(m_colors.text);
        const double w = metrics.horizontalAdvance(item.text);
        painter.drawText(QRectF(x, y, w + 2.0, metrics.height()), Qt::AlignLeft | Qt::AlignVCenter,
                         item.text);
        x += w + spacing;
    }
}

bool LoudnessPlot::isPictureName(const QString& path) {
    const QString suffix = QFileInfo(path).suffix().toLower();
    return suffix == QLatin1String("png") || suffix == QLatin1String("svg");
}

bool LoudnessPlot::save(const QString& path, std::shared_ptr<const LevelingSeries> series,
                        QSize size, Theme theme, const QString& title, QString* error) {
    QString reason;
    // The picture takes its name only once it is complete.
    QSaveFile file(path);
    if (!isPictureName(path)) {
        reason = tr("a picture's name ends in .png or .svg");
    } else if (!file.open(QIODevice::WriteOnly)) {
        reason = file.errorString();
    } else if (!write(file, QFileInfo(path).suffix().toLower(), std::move(series), size, theme,
                      title, &reason)) {
        file.cancelWriting();
    } else if (!file.commit()) {
        reason = file.errorString();
    } else {
        return true;
    }
    if (error) {
        *error = reason;
    }
    return false;
}

bool LoudnessPlot::write(QIODevice& device, const QString& format,
                         std::shared_ptr<const LevelingSeries> series, QSize size, Theme theme,
                         const QString& title, QString* error) {
    const auto fail = [&](const QString& reason) {
        if (error) {
            *error = reason;
        }
        return false;
    };
    const LoudnessPlot plot(std::move(series), size, theme, title);
    if (format == QLatin1String("svg")) {
        QSvgGenerator svg;
        svg.setOutputDevice(&device);
        svg.setSize(size);
        svg.setViewBox(QRect(QPoint(), size));
        svg.setResolution(96);
        svg.setTitle(title.isEmpty() ? tr("Loudness") : title);
        svg.setDescription(tr("Loudness over time"));
        QPainter painter;
        if (!painter.begin(&svg)) {
            return fail(tr("the drawing could not start"));
        }
        plot.paint(painter);
        painter.end();
    } else {
        QImage image(size, QImage::Format_ARGB32_Premultiplied);
        image.fill(plot.m_colors.background);
        QPainter painter(&image);
        plot.paint(painter);
        painter.end();
        if (!image.save(&device, "PNG")) {
            const auto* file = qobject_cast<QFileDevice*>(&device);
            return fail(file != nullptr && file->error() != QFileDevice::NoError
                            ? file->errorString()
                            : tr("PNG encoding failed"));
        }
    }
    return true;
}

} // namespace ostrand
