#include "plot/LoudnessPlot.h"

#include "support/NamedCases.h"
#include "support/SeriesFixtures.h"
#include "support/TempDir.h"

#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>

#include <gtest/gtest.h>

#include <functional>

namespace ostrand::test {
namespace {

constexpr QSize size{900, 360};

using Colors = LoudnessPlot::Colors;

// A value to find in the picture: at `at` of the way through, `value` in its
// lane's unit, drawn in `color`.
struct Probe {
    double at;
    double value;
    QColor Colors::*color;
};

struct PlotCase {
    const char* name;
    std::function<std::shared_ptr<LevelingSeries>()> series;
    LoudnessPlot::Theme theme;
    std::vector<Probe> probes;
    bool pauseShaded; // at 50 % of the way
};

QImage readBack(const QString& path) {
    if (path.endsWith(QLatin1String(".png"))) {
        return QImage(path);
    }
    QSvgRenderer svg(path);
    QImage image(size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    svg.render(&painter);
    return image;
}

int distance(QColor a, QColor b) {
    return std::abs(a.red() - b.red()) + std::abs(a.green() - b.green()) +
           std::abs(a.blue() - b.blue());
}

// The closest any pixel in rows y - reach ... y + reach of column x comes to `color`.
int nearest(const QImage& image, double x, double y, int reach, QColor color) {
    int best = 1000;
    for (int dy = -reach; dy <= reach; ++dy) {
        const QPoint p(static_cast<int>(x), static_cast<int>(y) + dy);
        if (image.rect().contains(p)) {
            best = std::min(best, distance(image.pixelColor(p), color));
        }
    }
    return best;
}

class PlotFileTest : public ::testing::TestWithParam<std::tuple<PlotCase, const char*>> {};

TEST_P(PlotFileTest, CurvesLieWhereTheDataSays) {
    const auto& [c, extension] = GetParam();
    const TempDir dir;
    const QString path = QString::fromStdString((dir / "plot.").string()) + extension;
    const auto series = c.series();
    QString error;
    ASSERT_TRUE(LoudnessPlot::save(path, series, size, c.theme, QStringLiteral("talk"), &error))
        << error.toStdString();
    // Envelopes, not a segment per frame: three hours draw as small as a minute.
    const qint64 bytes = QFileInfo(path).size();
    EXPECT_GT(bytes, 2000);
    EXPECT_LT(bytes, 400 * 1024);

    const QImage image = readBack(path);
    ASSERT_EQ(image.size(), size);
    const LoudnessPlot plot(series, size, c.theme);
    const Colors colors = LoudnessPlot::colors(c.theme);
    EXPECT_LT(distance(image.pixelColor(2, 2), colors.background), 8);
    for (const Probe& probe : c.probes) {
        const double x = plot.xFor(probe.at * series->duration);
        const bool gainLane = probe.color == &Colors::gain || probe.color == &Colors::limiter;
        const double y = gainLane ? plot.yForGain(probe.value) : plot.yForLoudness(probe.value);
        const QColor color = colors.*probe.color;
        SCOPED_TRACE(testing::Message() << "probe at " << probe.at << ", " << probe.value);
        EXPECT_LT(nearest(image, x, y, 2, color), 80);
        if (probe.color != &Colors::limiter) {
            // Only there: 10 px off it, no trace of that colour.
            EXPECT_GT(nearest(image, x, y - 12, 2, color), 80);
        }
    }
    // The readout under the pointer (its values the graph window's test
    // reads): the time there, no gain for a measurement, nothing beside the
    // lanes.
    const auto readout = plot.readoutAt(plot.xFor(0.83 * series->duration));
    ASSERT_TRUE(readout);
    EXPECT_NEAR(readout->seconds, 0.83 * series->duration, series->duration / 400);
    EXPECT_EQ(readout->gain.has_value(), series->isLeveled());
    EXPECT_FALSE(plot.readoutAt(plot.loudnessLane().left() - 5.0));
    if (c.pauseShaded) {
        // Near the top of the loudness lane nothing else is drawn.
        const double y = plot.yForLoudness(-3.0);
        const QColor inPause = image.pixelColor(
            static_cast<int>(plot.xFor(0.51 * series->duration)), static_cast<int>(y));
        const QColor inSpeech = image.pixelColor(
            static_cast<int>(plot.xFor(0.11 * series->duration)), static_cast<int>(y));
        EXPECT_GT(distance(inPause, inSpeech), 6);
    }
}

const std::vector<Probe> talkProbes{{0.23, -30.0, &Colors::input},  {0.83, -20.0, &Colors::input},
                                    {0.23, -14.0, &Colors::output}, {0.83, -14.0, &Colors::output},
                                    {0.23, 16.0, &Colors::gain},    {0.83, 6.0, &Colors::gain},
                                    {0.343, -1.5, &Colors::limiter}};

const PlotCase plotCases[] = {
    {"Minute", [] { return talkSeries(60.0); }, LoudnessPlot::Theme::light, talkProbes, true},
    // 200 frames over 800 columns: a line through the frames.
    {"TwoSeconds", [] { return talkSeries(2.0); }, LoudnessPlot::Theme::light, talkProbes, true},
    // Silence sits on the floor of the scale, all of it a pause.
    {"DigitalSilence",
     [] { return talkSeries(30.0, true); },
     LoudnessPlot::Theme::light,
     {{0.23, -60.0, &Colors::output}, {0.23, 16.0, &Colors::gain}},
     false},
    {"ThreeHoursDark", [] { return talkSeries(3 * 3600.0); }, LoudnessPlot::Theme::dark, talkProbes,
     true},
    {"Measurement",
     [] { return measuredSeries(40.0, -23.0f); },
     LoudnessPlot::Theme::light,
     {{0.53, -23.0, &Colors::output}},
     false},
};

std::string caseName(const testing::TestParamInfo<PlotFileTest::ParamType>& param) {
    return std::string(std::get<0>(param.param).name) + "_" + std::get<1>(param.param);
}

INSTANTIATE_TEST_SUITE_P(Series, PlotFileTest,
                         ::testing::Combine(::testing::ValuesIn(plotCases),
                                            ::testing::Values("png", "svg")),
                         caseName);

TEST(LoudnessPlot, TimeTicksAreRoundAndReadable) {
    EXPECT_EQ(LoudnessPlot::tickStep(10.0, 800.0), 1.0);
    EXPECT_EQ(LoudnessPlot::tickStep(60.0, 800.0), 10.0);
    EXPECT_EQ(LoudnessPlot::tickStep(3600.0, 800.0), 600.0);
    EXPECT_EQ(LoudnessPlot::tickStep(3 * 3600.0, 800.0), 1800.0);
    EXPECT_EQ(LoudnessPlot::tickStep(30 * 3600.0, 800.0), 3 * 3600.0);
    EXPECT_EQ(LoudnessPlot::tickStep(0.5, 800.0), 0.1);
    EXPECT_EQ(LoudnessPlot::timeLabel(3723.4), QStringLiteral("1:02:03"));
    EXPECT_EQ(LoudnessPlot::timeLabel(3723.44, true), QStringLiteral("1:02:03.4"));
    EXPECT_EQ(LoudnessPlot::timeLabel(59.96, true), QStringLiteral("0:01:00.0"));
}

TEST(LoudnessPlot, AFailedSaveLeavesNothing) {
    const TempDir dir;
    QString error;
    const QString missing = QString::fromStdString((dir / "no such folder" / "plot.png").string());
    EXPECT_FALSE(
        LoudnessPlot::save(missing, talkSeries(5.0), size, LoudnessPlot::Theme::light, {}, &error));
    EXPECT_FALSE(error.isEmpty());
    const QString wrong = QString::fromStdString((dir / "plot.jpg").string());
    EXPECT_FALSE(
        LoudnessPlot::save(wrong, talkSeries(5.0), size, LoudnessPlot::Theme::light, {}, &error));
    EXPECT_FALSE(QFile::exists(wrong));
}

} // namespace
} // namespace ostrand::test

int main(int argc, char** argv) {
    // Text needs the font database, which comes with a QGuiApplication; no
    // display is needed, also when tests are listed.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QGuiApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
