#include "PauseMetrics.h"

#include <ebur128.h>

#include <algorithm>
#include <cmath>
#include <istream>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

namespace ostrand::pauses {

namespace {

struct Ebur128Deleter {
    void operator()(ebur128_state* state) const { ebur128_destroy(&state); }
};

std::unique_ptr<ebur128_state, Ebur128Deleter> meter(std::span<const float> x, double sampleRate,
                                                     int channels, int mode) {
    std::unique_ptr<ebur128_state, Ebur128Deleter> state(
        ebur128_init(static_cast<unsigned>(channels),
                     static_cast<unsigned long>(std::lround(sampleRate)), mode));
    if (!state || ebur128_add_frames_float(state.get(), x.data(),
                                           x.size() / static_cast<std::size_t>(channels)) !=
                      EBUR128_SUCCESS) {
        throw std::runtime_error("libebur128 failed");
    }
    return state;
}

Span clipped(Span span, std::size_t size) {
    return {std::min(span.begin, size), std::min(span.end, size)};
}

double powerOf(double db) {
    return std::pow(10.0, db / 10.0);
}

} // namespace

void writeLabels(std::ostream& out, const Labels& labels) {
    for (const Span& pause : labels.pauses) {
        out << "pause " << pause.begin << ' ' << pause.end << '\n';
    }
    for (std::size_t k = 0; k < labels.speakers.size(); ++k) {
        for (const Span& sentence : labels.speakers[k]) {
            out << "speaker " << k << ' ' << sentence.begin << ' ' << sentence.end << '\n';
        }
    }
}

Labels readLabels(std::istream& in) {
    Labels labels;
    std::string kind;
    while (in >> kind) {
        std::size_t k = 0;
        Span span;
        if (kind == "speaker") {
            in >> k;
        } else if (kind != "pause") {
            throw std::runtime_error("unknown label " + kind);
        }
        if (!(in >> span.begin >> span.end) || span.end < span.begin) {
            throw std::runtime_error("bad span in the labels");
        }
        if (kind == "pause") {
            labels.pauses.push_back(span);
        } else {
            labels.speakers.resize(std::max(labels.speakers.size(), k + 1));
            labels.speakers[k].push_back(span);
        }
    }
    return labels;
}

double meanSquareDb(std::span<const float> x, Span span) {
    const Span s = clipped(span, x.size());
    double sum = 0.0;
    for (std::size_t i = s.begin; i < s.end; ++i) {
        sum += static_cast<double>(x[i]) * static_cast<double>(x[i]);
    }
    return 10.0 *
           std::log10(sum / static_cast<double>(std::max<std::size_t>(s.end - s.begin, 1)) + 1e-20);
}

double pauseRiseDb(std::span<const float> before, std::span<const float> after, double sampleRate,
                   const std::vector<Span>& pauses) {
    const auto half = static_cast<std::size_t>(0.5 * sampleRate);
    const auto two = static_cast<std::size_t>(2.0 * sampleRate);
    const auto relativeDb = [&](std::span<const float> x, Span pause) {
        const double left =
            meanSquareDb(x, {pause.begin > two ? pause.begin - two : 0, pause.begin});
        const double right = meanSquareDb(x, {pause.end, pause.end + two});
        const double around = 10.0 * std::log10(0.5 * (powerOf(left) + powerOf(right)));
        return meanSquareDb(x, {pause.begin + half, pause.end - half}) - around;
    };
    std::vector<double> rises;
    for (const Span& pause : pauses) {
        if (pause.end - pause.begin >= 3 * half) {
            rises.push_back(relativeDb(after, pause) - relativeDb(before, pause));
        }
    }
    if (rises.empty()) {
        return std::nan("");
    }
    std::sort(rises.begin(), rises.end());
    const std::size_t m = rises.size() / 2;
    return rises.size() % 2 == 1 ? rises[m] : 0.5 * (rises[m - 1] + rises[m]);
}

double integratedLufs(std::span<const float> x, double sampleRate, int channels) {
    double lufs = 0.0;
    ebur128_loudness_global(meter(x, sampleRate, channels, EBUR128_MODE_I).get(), &lufs);
    return lufs;
}

double loudnessRangeLu(std::span<const float> x, double sampleRate, int channels) {
    double lu = 0.0;
    ebur128_loudness_range(meter(x, sampleRate, channels, EBUR128_MODE_LRA).get(), &lu);
    return lu;
}

double truePeakDb(std::span<const float> x, double sampleRate, int channels) {
    const auto state = meter(x, sampleRate, channels, EBUR128_MODE_TRUE_PEAK);
    double peak = 0.0;
    for (int c = 0; c < channels; ++c) {
        double channelPeak = 0.0;
        ebur128_true_peak(state.get(), static_cast<unsigned>(c), &channelPeak);
        peak = std::max(peak, channelPeak);
    }
    return 20.0 * std::log10(peak + 1e-20);
}

double speakersGapLu(std::span<const float> x, double sampleRate, const Labels& labels) {
    std::vector<double> loudness;
    for (const std::vector<Span>& sentences : labels.speakers) {
        std::vector<float> joined;
        for (const Span& sentence : sentences) {
            const Span s = clipped(sentence, x.size());
            joined.insert(joined.end(), x.begin() + static_cast<std::ptrdiff_t>(s.begin),
                          x.begin() + static_cast<std::ptrdiff_t>(s.end));
        }
        if (!joined.empty()) {
            loudness.push_back(integratedLufs(joined, sampleRate));
        }
    }
    if (loudness.size() < 2) {
        return 0.0;
    }
    const auto [lo, hi] = std::minmax_element(loudness.begin(), loudness.end());
    return *hi - *lo;
}

} // namespace ostrand::pauses
