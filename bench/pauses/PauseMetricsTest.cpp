#include "PauseMetrics.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace ostrand::pauses {
namespace {

constexpr double rate = 8000.0;

std::size_t at(double seconds) {
    return static_cast<std::size_t>(seconds * rate);
}

// A tone at `toneDb` (RMS) with the given pauses at `pauseDb`.
std::vector<float> programme(double seconds, const std::vector<Span>& pauses, double toneDb,
                             double pauseDb) {
    std::vector<float> x(at(seconds));
    for (std::size_t i = 0; i < x.size(); ++i) {
        bool inPause = false;
        for (const Span& p : pauses) {
            inPause = inPause || (i >= p.begin && i < p.end);
        }
        const double rms = std::pow(10.0, (inPause ? pauseDb : toneDb) / 20.0);
        x[i] = static_cast<float>(
            rms * std::sqrt(2.0) *
            std::sin(2.0 * std::numbers::pi * 1000.0 * static_cast<double>(i) / rate));
    }
    return x;
}

struct RiseCase {
    const char* name;
    double afterPauseDb; // pause level after, tone stays at -20
    double afterToneDb;
    double rise;
    // ctest names the case, not its bytes.
    friend void PrintTo(const RiseCase& c, std::ostream* os) { *os << c.name; }
};

class PauseRise : public testing::TestWithParam<RiseCase> {};

TEST_P(PauseRise, IsThePauseLevelAgainstTheSpeechAfterMinusBefore) {
    const std::vector<Span> pauses{{at(4), at(7)}, {at(11), at(13)}};
    const auto before = programme(18, pauses, -20.0, -50.0);
    const auto after = programme(18, pauses, GetParam().afterToneDb, GetParam().afterPauseDb);
    EXPECT_NEAR(pauseRiseDb(before, after, rate, pauses), GetParam().rise, 0.01);
}

INSTANTIATE_TEST_SUITE_P(Levels, PauseRise,
                         testing::Values(RiseCase{"unchanged", -50.0, -20.0, 0.0},
                                         RiseCase{"pause_up", -44.0, -20.0, 6.0},
                                         RiseCase{"one_gain", -40.0, -10.0, 0.0},
                                         RiseCase{"pause_down", -56.0, -20.0, -6.0}),
                         [](const testing::TestParamInfo<RiseCase>& param) {
                             return std::string(param.param.name);
                         });

TEST(PauseRise, MedianOfTheLongPausesOnly) {
    // Rises of 0, 3 and 9 dB; a short pause of 20 dB does not count.
    const std::vector<Span> pauses{
        {at(3), at(5)}, {at(9), at(11)}, {at(15), at(17)}, {at(20), at(21)}};
    const auto before = programme(24, pauses, -20.0, -50.0);
    auto after = before;
    const double gains[] = {0.0, 3.0, 9.0, 20.0};
    for (std::size_t k = 0; k < pauses.size(); ++k) {
        for (std::size_t i = pauses[k].begin; i < pauses[k].end; ++i) {
            after[i] *= static_cast<float>(std::pow(10.0, gains[k] / 20.0));
        }
    }
    EXPECT_NEAR(pauseRiseDb(before, after, rate, pauses), 3.0, 0.01);
    EXPECT_TRUE(std::isnan(pauseRiseDb(before, after, rate, {{at(20), at(21)}})));
}

TEST(SpeakersGap, IsTheLoudnessOfEachSpeakersSentences) {
    // Speaker 0 at -20 dB in two sentences, speaker 1 at -32 dB between them.
    auto x = programme(12, {}, -20.0, -20.0);
    for (std::size_t i = at(4); i < at(8); ++i) {
        x[i] *= static_cast<float>(std::pow(10.0, -12.0 / 20.0));
    }
    Labels labels;
    labels.speakers = {{{0, at(4)}, {at(8), at(12)}}, {{at(4), at(8)}}};
    EXPECT_NEAR(speakersGapLu(x, rate, labels), 12.0, 0.05);
    labels.speakers.pop_back();
    EXPECT_EQ(speakersGapLu(x, rate, labels), 0.0);
}

TEST(Meters, TakeInterleavedChannels) {
    // A tone on both channels is 3 dB louder than on one, its peak the same;
    // a channel count ignored would read frames as twice as long or short.
    const auto mono = programme(8, {}, -20.0, -20.0);
    std::vector<float> stereo;
    for (const float v : mono) {
        stereo.insert(stereo.end(), {v, v});
    }
    const double monoLufs = integratedLufs(mono, rate);
    EXPECT_NEAR(integratedLufs(stereo, rate, 2) - monoLufs, 3.01, 0.02);
    EXPECT_NEAR(truePeakDb(stereo, rate, 2), -20.0 + 3.01, 0.1);
    EXPECT_NEAR(loudnessRangeLu(stereo, rate, 2), loudnessRangeLu(mono, rate), 0.01);
}

TEST(Labels, ReadWhatWasWritten) {
    Labels labels;
    labels.pauses = {{10, 20}, {30, 45}};
    labels.speakers = {{{0, 10}}, {{20, 30}, {45, 50}}};
    std::stringstream text;
    writeLabels(text, labels);
    EXPECT_EQ(readLabels(text), labels);
    std::stringstream bad("pause 5 3\n");
    EXPECT_THROW(readLabels(bad), std::runtime_error);
}

} // namespace
} // namespace ostrand::pauses
