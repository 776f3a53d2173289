#pragma once

#include <cstddef>
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

// Short-term power: 100 ms.
inline constexpr std::int64_t smoothingFrames = 10;
// The floor: the quietest 200 ms block within 8 s either side.
inline constexpr std::int64_t floorBlockFrames = 20;
inline constexpr std::int64_t floorReachBlocks = 40;
// The speech nearby: the loudest block within 4 s either side.
inline constexpr std::int64_t speechReachBlocks = 20;
// Speech rises half the way from the floor to the speech nearby above the
// floor, but at least 4 dB and at most 14 dB: a music bed's swells stay under
// 14 dB, a quiet speaker in a loud room is found at a smaller margin.
inline constexpr double speechAboveFloorDb = 14.0;
inline constexpr double minSpeechAboveFloorDb = 4.0;
// Speech reaches 200 ms past its loud frames: weak onsets and word ends.
inline constexpr std::int64_t hangoverFrames = 20;
// A frame within 3 dB of the floor is mostly noise, where speech stands 15 dB
// or more above the floor.
inline constexpr double frameAboveFloorDb = 3.0;
inline constexpr double clearSpeechAboveFloorDb = 15.0;
// A gain change across a pause ends 300 ms before the speech it is for.
inline constexpr std::int64_t leadFrames = 30;
// The limiter's loss is judged on the 2 s of speech either side of a pause.
inline constexpr std::int64_t limiterLossFrames = 200;
// A floor this far under the activity floor of the plan is clean: the plan's
// own gates already keep such pauses out.
inline constexpr double quietFloorBelowGateDb = 15.0;

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

// Calls run(begin, end) for every run of pause frames [begin, end), in order.
template <typename Run>
void forEachPause(std::span<const unsigned char> pause, Run&& run) {
    std::size_t i = 0;
    while (i < pause.size()) {
        if (pause[i] == 0) {
            ++i;
            continue;
        }
        const std::size_t begin = i;
        while (i < pause.size() && pause[i] != 0) {
            ++i;
        }
        run(begin, i);
    }
}

} // namespace ostrand::PauseDetector
