#pragma once

#include <cstdint>
#include <span>
#include <vector>

// Finds the pauses of a recording made in a noisy room or over a quiet bed:
// stretches where the level stays near the noise floor, however loud that
// floor is. The floor is a running minimum of short-term power (minimum
// statistics); speech is what rises a margin above it, and a hangover keeps
// the weak starts and ends of words with the speech. Pure functions on
// per-frame levels in dB, 100 frames per second.
namespace ostrand::PauseDetector {

inline constexpr std::int64_t smoothingFrames = 10;   // short-term power: 100 ms
inline constexpr std::int64_t floorBlockFrames = 20;  // the minimum is taken over 200 ms blocks
inline constexpr std::int64_t floorReachBlocks = 40;  // ... within 8 s either side
inline constexpr double speechAboveFloorDb = 10.0;    // margin over the floor that counts as speech
inline constexpr double minSpeechAboveFloorDb = 4.0;  // ... at least, for speech barely above it
inline constexpr std::int64_t speechReachBlocks = 20; // speech level: loudest block within 4 s
inline constexpr double frameAboveFloorDb = 3.0;      // a frame this near the floor is mostly noise
inline constexpr double clearSpeechAboveFloorDb = 15.0; // ... where speech rises this far above it
inline constexpr std::int64_t hangoverFrames = 20; // speech reaches 200 ms past its loud frames
inline constexpr std::int64_t limiterLossFrames =
    200;                                       // the limiter's loss is taken over 2 s of speech
inline constexpr std::int64_t leadFrames = 30; // a gain change ends this far before speech
inline constexpr double quietFloorBelowGateDb =
    15.0; // a floor this far under the activity floor is clean

// Noise floor in dB for every frame: the quietest 200 ms block power within
// the reach around the frame's block. `meanSquare` is linear power.
std::vector<double> noiseFloorDb(std::span<const double> meanSquare);

// What the pauses were judged against, per frame, in dB.
struct Levels {
    std::vector<double> floorDb;  // noiseFloorDb
    std::vector<double> speechDb; // the loudest 200 ms block within `speechReachBlocks`
};

// pause[i] = 1 when no frame within the hangover of i has a short-term level
// more than the margin above the floor; 0 otherwise. The margin is half the
// way from the floor to the speech, within the two bounds above. `pause`
// must hold as many entries as `meanSquare`.
Levels markPauses(std::span<const double> meanSquare, std::span<unsigned char> pause);

// Whether a frame of `frameDb` is mostly noise: near the floor where speech
// stands well clear of it. Where it does not, the speaker's own weak frames
// sit there too, and leaving them out would bias their level up.
bool noiseDominated(double frameDb, double floorDb, double speechDb) noexcept;

// Holds the tracked level (dB) of every run of pause frames at the louder of
// its two neighbours, so a pause never gets more gain than the speech on
// either side; the last (or first) `leadFrames` of the run take the quieter
// neighbour's level, so the smoothed gain has arrived when that speech starts.
void holdAcrossPauses(std::span<double> levelDb, std::span<const unsigned char> pause);

} // namespace ostrand::PauseDetector
