#include "SpeechGate.h"

#include "GainCurveBuilder.h"
#include "LevelingParameters.h"
#include "LoudnessMeter.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace ostrand::SpeechGate {

namespace {

// Whether the frames on both sides of each frame dip like speech. The frames
// around are kept sorted as the window slides, so the loud level is an index.
std::vector<unsigned char> dipsLikeSpeech(std::span<const double> levelDb) {
    const std::size_t n = levelDb.size();
    const auto reach = static_cast<std::size_t>(reachFrames);
    const std::size_t shortest = reach / 2;
    std::vector<unsigned char> heard(n, 0);
    std::vector<double> sorted;
    const auto enter = [&](double db) {
        sorted.insert(std::upper_bound(sorted.begin(), sorted.end(), db), db);
    };
    for (std::size_t k = 0; k < std::min(n, reach); ++k) {
        enter(levelDb[k]);
    }
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t lo = i >= reach ? i - reach : 0;
        const std::size_t hi = std::min(n, i + reach);
        if (i > 0 && hi == i + reach) {
            enter(levelDb[hi - 1]);
        }
        if (i > reach) {
            sorted.erase(std::lower_bound(sorted.begin(), sorted.end(), levelDb[lo - 1]));
        }
        const double dipUnder =
            sorted[GainCurveBuilder::percentileRank(sorted.size(), loudPercentile)] - dipDb;
        const auto dips = [&](std::size_t from, std::size_t to) {
            return static_cast<double>(
                std::count_if(levelDb.begin() + static_cast<std::ptrdiff_t>(from),
                              levelDb.begin() + static_cast<std::ptrdiff_t>(to),
                              [&](double db) { return db < dipUnder; }));
        };
        const auto enough = [](double count, std::size_t frames) {
            return count >= minDipShare * static_cast<double>(frames);
        };
        const bool left = i - lo >= shortest;
        const bool right = hi - i >= shortest;
        bool speech = false;
        if (left || right) {
            speech =
                (!left || enough(dips(lo, i), i - lo)) && (!right || enough(dips(i, hi), hi - i));
        } else {
            speech = enough(dips(lo, hi), hi - lo);
        }
        heard[i] = static_cast<unsigned char>(speech);
    }
    return heard;
}

} // namespace

Speech findSpeech(const FrameAnalysis& analysis) {
    const std::size_t n = analysis.meanSquare.size();
    std::vector<double> levelDb(n);
    for (std::size_t i = 0; i < n; ++i) {
        levelDb[i] = 10.0 * std::log10(analysis.meanSquare[i] + GainCurveBuilder::powerEpsilon);
    }
    Speech found;
    found.frames = dipsLikeSpeech(levelDb);
    std::vector<unsigned char>& speech = found.frames;
    LevelingParameters parameters;
    parameters.noiseAwarePauses = true;
    const std::vector<unsigned char> active =
        GainCurveBuilder::findActivity(analysis, parameters).active;
    const std::vector<unsigned char> heard = speech;
    for (std::size_t i = 0; i < n;) {
        if (active[i] != 0) {
            ++i;
            continue;
        }
        const std::size_t begin = i;
        while (i < n && active[i] == 0) {
            ++i;
        }
        if ((begin > 0 && heard[begin - 1] != 0) || (i < n && heard[i] != 0)) {
            std::fill(speech.begin() + static_cast<std::ptrdiff_t>(begin),
                      speech.begin() + static_cast<std::ptrdiff_t>(i), 1);
        }
    }
    const auto seconds = [&analysis](std::int64_t samples) {
        return static_cast<double>(samples) / analysis.sampleRate;
    };
    const auto first = std::find(active.begin(), active.end(), 1);
    if (first == active.end()) {
        found.headSeconds = found.tailSeconds = seconds(analysis.totalSamples);
        return found;
    }
    const auto last = std::find(active.rbegin(), active.rend(), 1);
    found.headSeconds = seconds((first - active.begin()) * analysis.frameLength);
    found.tailSeconds =
        seconds(analysis.totalSamples - (active.rend() - last) * analysis.frameLength);
    return found;
}

double loudness(std::span<const double> blockPowers, std::span<const unsigned char> speech,
                double sampleRate, std::int64_t frameLength) {
    const auto length = static_cast<std::size_t>(std::max<std::int64_t>(frameLength, 1));
    // Where the meter's 10 ms slices begin.
    const auto sliceStart = [sampleRate](std::size_t slice) {
        return static_cast<std::size_t>(
            std::floor(static_cast<double>(slice) * sampleRate / 100.0 + 1e-6));
    };
    std::vector<double> chosen;
    for (std::size_t k = 0; k < blockPowers.size(); ++k) {
        const std::size_t first = sliceStart(10 * k) / length;
        const std::size_t end =
            std::min(speech.size(), (sliceStart(10 * k + 40) + length - 1) / length);
        if (first < end && std::all_of(speech.begin() + static_cast<std::ptrdiff_t>(first),
                                       speech.begin() + static_cast<std::ptrdiff_t>(end),
                                       [](unsigned char s) { return s != 0; })) {
            chosen.push_back(blockPowers[k]);
        }
    }
    return LoudnessMeter::integratedOf(chosen);
}

} // namespace ostrand::SpeechGate
