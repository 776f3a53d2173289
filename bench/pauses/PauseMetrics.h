#pragma once

#include <cstddef>
#include <iosfwd>
#include <span>
#include <vector>

// What the pause evaluation measures on a programme before and after
// leveling: mono 32-bit float samples and the spans its builder labelled.
namespace ostrand::pauses {

struct Span {
    std::size_t begin = 0; // samples
    std::size_t end = 0;
    friend bool operator==(const Span&, const Span&) = default;
};

struct Labels {
    std::vector<Span> pauses;
    std::vector<std::vector<Span>> speakers; // the sentences of each speaker
    friend bool operator==(const Labels&, const Labels&) = default;
};

// One line per span: "pause BEGIN END" or "speaker K BEGIN END".
void writeLabels(std::ostream& out, const Labels& labels);
Labels readLabels(std::istream& in);

// Mean square of x[begin, end) in dB; the span is clipped to x.
double meanSquareDb(std::span<const float> x, Span span);

// For each pause: its level, half a second in from either end, relative to
// the two seconds of programme on either side (the mean of their powers);
// after minus before. The median over the pauses that are at least 1.5 s.
double pauseRiseDb(std::span<const float> before, std::span<const float> after, double sampleRate,
                   const std::vector<Span>& pauses);

// Integrated loudness (LUFS), loudness range (LU) and true peak (dBTP, the
// largest of the channels) by libebur128; x holds `channels` interleaved.
double integratedLufs(std::span<const float> x, double sampleRate, int channels = 1);
double loudnessRangeLu(std::span<const float> x, double sampleRate, int channels = 1);
double truePeakDb(std::span<const float> x, double sampleRate, int channels = 1);

// Largest minus smallest integrated loudness of the speakers, each measured
// over their sentences put end to end; 0 for fewer than two speakers.
double speakersGapLu(std::span<const float> x, double sampleRate, const Labels& labels);

} // namespace ostrand::pauses
