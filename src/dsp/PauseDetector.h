#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

// Finds the pauses of a recording, whatever fills them: room noise, hum,
// babble, a music bed. A pause is judged by contrast with the speech around
// it, not by an absolute level, so the same decision holds in a quiet studio
// and over a loud bed. A running noise floor (minimum statistics) keeps the
// frames a loud room drowns out of the speech level. Pure functions on
// per-frame powers, 100 frames per second.
namespace ostrand::PauseDetector {

// The floor-based decision (markPauses): short-term power over 100 ms.
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
// Speakers are evened out for the limiter over 1 s of speech, against what
// it takes from the least limited tenth of the speech, by at most 3 dB, and
// never where it already takes 6 dB: there more gain only feeds the limiter.
inline constexpr std::int64_t limiterEvenFrames = 100;
inline constexpr double limiterEvenReference = 0.1;
inline constexpr double limiterEvenMaxDb = 3.0;
inline constexpr double limiterEvenUpToLossDb = 6.0;
inline constexpr int limiterEvenPasses = 2;
// A floor this far under the activity floor of the plan (-68 dBFS) is a
// clean room: the plan stays exactly as the gates make it. A room at -66
// still hisses once leveled up, and is treated.
inline constexpr double quietFloorBelowGateDb = 18.0;

// Pauses by contrast. Levels are 300 ms means. A stretch `contrastDb` under
// the loudest level within 2.5 s on BOTH sides is a gap between phrases: a
// quieter speaker's turn goes on at its own level on one side at least. Near
// the file's ends the side beyond it counts as louder (lead-ins, outros). A
// stretch that far under one side only is a pause when it is also steady
// (within `steadyWithinDb` over a second), as a room or a bed is and words
// are not. Each stretch then grows while the level stays within
// `growAboveDb` over and `contrastDb` under its own loudest, which carries a
// pause of any length but not a quieter speaker's turn after it, and
// a breath or click between two pauses of 1.6 s or more joins them when the
// gap it leaves is under 0.8 s (half a second, and the smoothing's spread).
inline constexpr std::int64_t contrastSmoothingFrames = 30;
inline constexpr std::int64_t contrastReachFrames = 250;
inline constexpr double contrastDb = 8.0;
inline constexpr double steadyWithinDb = 4.0;
inline constexpr std::int64_t steadyReachFrames = 50;
inline constexpr double growAboveDb = 2.0;
inline constexpr std::int64_t islandFrames = 80;

// pause[i] = 1 for the frames of such stretches of `power` (linear, per
// frame); other entries are left as they are. `pause` must hold as many
// entries as `power`.
void markQuietStretches(std::span<const double> power, std::span<unsigned char> pause);

// Noise floor in dB for every frame: the quietest 200 ms block power within
// the reach around the frame's block. `meanSquare` is linear power.
std::vector<double> noiseFloorDb(std::span<const double> meanSquare);

// What the pauses were judged against, per frame, in dB.
struct Levels {
    std::vector<double> floorDb;  // noiseFloorDb
    std::vector<double> speechDb; // the loudest 200 ms block within `speechReachBlocks`
};

// The floor and the loudest 200 ms block within `speechReachBlocks` of every
// frame.
Levels noiseLevels(std::span<const double> meanSquare);

// Whether anything rises above the floor: pause[i] = 1 when no frame within
// the hangover of i has a short-term level more than the margin above the
// floor; 0 otherwise. The margin is half the
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
