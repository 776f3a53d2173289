#pragma once

#include "FrameAnalysis.h"

#include <cstdint>
#include <span>
#include <vector>

// Tells the speech of a programme from the rest of it (music, effects, steady
// sound) and measures the loudness of the speech alone. Pure functions.
//
// Speech rises and falls with its syllables: between syllables and words its
// level drops well under its loud frames several times a second, where music,
// effects and room noise fill the gaps. A frame is heard as speech when the
// second before it and the second after it both dip that far under the loud
// frames of the two seconds together, so a passage of music next to speech
// does not borrow the speech's dips. The pauses the leveler finds (frames its
// plan does not take as active, GainCurveBuilder::findActivity with
// noise-aware pauses) belong to the speech they border.
//
// The speech loudness is the integrated loudness of ITU-R BS.1770 taken over
// the gating blocks (400 ms, every 100 ms) that lie wholly in speech: the
// absolute gate at -70 LUFS and the relative gate 10 LU under the mean of the
// speech blocks apply after the selection, as they do to the whole programme.
// On plain speech every block is speech and both figures are one; music
// between the speech is left out instead of raising the relative gate.
// Percussion alone dips like speech and counts as speech; speech under a bed
// less than about 10 dB quieter than it partly counts as music.
namespace ostrand::SpeechGate {

// Each side of a frame reaches this far (1 s); a side cut shorter than half
// of it by the programme's start or end is not judged.
inline constexpr std::int64_t reachFrames = 100;
// The loud frames of the two seconds: their 90th percentile of level.
inline constexpr double loudPercentile = 0.9;
// A dip lies this far under the loud frames ...
inline constexpr double dipDb = 12.0;
// ... and speech dips for at least this share of each side (80 ms a second).
inline constexpr double minDipShare = 0.08;

// What the gate finds in a programme.
struct Speech {
    // 1 where frame i is speech or a pause next to it, 0 where it is other
    // programme.
    std::vector<unsigned char> frames;
    // Seconds before the first frame the leveler finds active and after the
    // last: the room tone at the ends (all of the programme when none is).
    double headSeconds = 0.0;
    double tailSeconds = 0.0;
};
Speech findSpeech(const FrameAnalysis& analysis);

// The loudness in LUFS of the speech: the gating blocks of a LoudnessMeter
// (its blockPowers(), block k from 0.1 k s to 0.1 k + 0.4 s) whose frames
// are all speech, gated as LoudnessMeter::integratedOf gates;
// Loudness::silence when none is. `speech` holds the frames findSpeech() found in an analysis at
// `sampleRate` in frames of `frameLength` samples.
double loudness(std::span<const double> blockPowers, std::span<const unsigned char> speech,
                double sampleRate, std::int64_t frameLength);

} // namespace ostrand::SpeechGate
