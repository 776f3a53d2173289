#pragma once

#include "media/LevelingReport.h"

#include <QColor>
#include <QCoreApplication>
#include <QFont>
#include <QIODevice>
#include <QRectF>
#include <QSizeF>
#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

class QPainter;

namespace ostrand {

// The picture of one file's loudness over time: short-term loudness of the
// source and of the output in a loudness lane (LUFS, with the target as a
// line), the planned gain and the limiter's reduction in a gain lane under
// it, pauses shaded across both, a time axis in h:mm:ss. A measurement has
// the loudness lane only. Long files are drawn as min/max envelopes per
// pixel column, so drawing cost follows the width, not the length.
//
// A value type; the series is shared, never copied. Any thread, painting into
// a QImage or a QSvgGenerator; text needs a QGuiApplication (fonts).
class LoudnessPlot {
    Q_DECLARE_TR_FUNCTIONS(LoudnessPlot)

public:
    enum class Theme { light, dark };

    struct Colors {
        QColor background;
        QColor grid;
        QColor axis;
        QColor text;
        QColor input;
        QColor output;
        QColor target;
        QColor gain;
        QColor limiter;
        QColor pause;
    };
    static Colors colors(Theme theme);

    // The values under one point in time.
    struct Readout {
        double seconds = 0.0;
        double inputLoudness = 0.0; // LUFS
        std::optional<double> outputLoudness;
        std::optional<double> gain;             // dB
        std::optional<double> limiterReduction; // dB, 0 or more
        bool pause = false;
    };

    static constexpr double loudnessTop = 0.0;      // LUFS
    static constexpr double loudnessBottom = -60.0; // LUFS; quieter reads as this
    static constexpr double loudnessStep = 10.0;
    static constexpr double gainStep = 6.0; // dB, the least the gain lane spans either side of 0

    LoudnessPlot(std::shared_ptr<const LevelingSeries> series, QSizeF size, Theme theme,
                 QString title = {}, QFont font = {});

    void paint(QPainter& painter) const;

    QSizeF size() const { return m_size; }
    const LevelingSeries& series() const { return *m_series; }
    QRectF loudnessLane() const { return m_loudnessLane; }
    QRectF gainLane() const { return m_gainLane; } // empty for a measurement
    double gainTop() const { return m_gainTop; }
    double gainBottom() const { return m_gainBottom; }

    double xFor(double seconds) const;
    double secondsAt(double x) const;
    double yForLoudness(double lufs) const;
    double yForGain(double db) const;
    // Nothing outside the lanes' width or for a file without frames.
    std::optional<Readout> readoutAt(double x) const;

    // The time ticks for `duration` seconds over `width` pixels: steps from
    // a table of round values, 1 s to 30 min (then whole hours), at least
    // `minSpacing` pixels apart.
    static double tickStep(double duration, double width, double minSpacing = 80.0);
    // "1:02:03"; with tenths "1:02:03.4".
    static QString timeLabel(double seconds, bool tenths = false);

    // Writes the picture at `path`, PNG or SVG by its extension, replacing a
    // file there only once the new one is complete. False with the reason
    // in `error` otherwise.
    static bool save(const QString& path, std::shared_ptr<const LevelingSeries> series, QSize size,
                     Theme theme, const QString& title, QString* error);
    // Writes the picture into `device`, open for writing, as `format` ("png"
    // or "svg"), for a caller that names the file itself. False with the
    // reason in `error` otherwise.
    static bool write(QIODevice& device, const QString& format,
                      std::shared_ptr<const LevelingSeries> series, QSize size, Theme theme,
                      const QString& title, QString* error);
    static bool isPictureName(const QString& path); // ends in .png or .svg

private:
    // Per pixel column, the lowest and highest value of a series.
    struct Envelope {
        std::vector<float> low;
        std::vector<float> high;
    };
    Envelope envelope(const std::vector<float>& values) const;
    // The frames [first, last) of a series of n that pixel column `column` covers.
    std::pair<std::size_t, std::size_t> framesOf(int column, std::size_t n) const;
    void layOut();
    void paintLegend(QPainter& painter) const;
    void paintTimeAxis(QPainter& painter, bool grid) const; // grid lines, or ticks and labels
    void paintScale(QPainter& painter, const QRectF& lane, double bottom, double top, double step,
                    const std::function<double(double)>& yFor, bool gains,
                    const QString& unit) const;
    void paintLoudnessLane(QPainter& painter) const;
    void paintGainLane(QPainter& painter) const;
    void paintPauses(QPainter& painter) const;
    void paintCurve(QPainter& painter, const std::vector<float>& values, const Envelope& env,
                    const QRectF& lane, double top, double bottom, const QColor& color,
                    double width) const;

    std::shared_ptr<const LevelingSeries> m_series;
    QSizeF m_size;
    Colors m_colors;
    QString m_title;
    QFont m_font;
    double m_duration = 0.0;
    QRectF m_loudnessLane;
    QRectF m_gainLane;
    double m_gainTop = gainStep;
    double m_gainBottom = -gainStep;
    double m_gainTickStep = gainStep;
    int m_columns = 0;
    Envelope m_input;
    Envelope m_output;
    Envelope m_gain;
    Envelope m_limiter;
    std::vector<unsigned char> m_pauseColumns; // quarters of each column in pauses, 0 ... 4
};

} // namespace ostrand
