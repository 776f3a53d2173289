// Time to draw the loudness plot of a three-hour file (1.08 M frames a
// series) into a 900x360 picture: laying out the envelopes, painting, and
// writing PNG or SVG. Run: build/release/bench/plot_bench
#include "plot/LoudnessPlot.h"
#include "support/SeriesFixtures.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>

#include <benchmark/benchmark.h>

#include <cmath>

namespace {

using ostrand::LoudnessPlot;

// The made-up talk with a wobble, so that every column's envelope has width.
std::shared_ptr<const ostrand::LevelingSeries> threeHours() {
    static const auto series = [] {
        auto s = ostrand::test::talkSeries(3 * 3600.0);
        for (std::size_t i = 0; i < s->frames(); ++i) {
            const auto wobble = static_cast<float>(4.0 * std::sin(static_cast<double>(i) * 0.013));
            s->inputLoudness[i] += wobble;
            s->outputLoudness[i] += 0.3f * wobble;
        }
        return s;
    }();
    return series;
}

void layOutAndPaint(benchmark::State& state) {
    QImage image(900, 360, QImage::Format_ARGB32_Premultiplied);
    for (auto _ : state) {
        const LoudnessPlot plot(threeHours(), QSizeF(image.size()), LoudnessPlot::Theme::light);
        QPainter painter(&image);
        plot.paint(painter);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(threeHours()->frames()));
}
BENCHMARK(layOutAndPaint)->Unit(benchmark::kMillisecond);

void saveFile(benchmark::State& state, const char* name) {
    const QString path = QDir::temp().filePath(QString::fromLatin1(name));
    for (auto _ : state) {
        QString error;
        if (!LoudnessPlot::save(path, threeHours(), {900, 360}, LoudnessPlot::Theme::light,
                                QStringLiteral("three hours"), &error)) {
            state.SkipWithError(error.toUtf8().constData());
        }
    }
    state.counters["bytes"] = static_cast<double>(QFileInfo(path).size());
    QFile::remove(path);
}
BENCHMARK_CAPTURE(saveFile, png, "ostrand-plot-bench.png")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(saveFile, svg, "ostrand-plot-bench.svg")->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QGuiApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
