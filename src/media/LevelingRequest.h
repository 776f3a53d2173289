#pragma once

#include "OutputNaming.h"
#include "dsp/LevelingParameters.h"

#include <filesystem>
#include <optional>

namespace ostrand {

// One file's leveling as a front end asks for it: plain data, copied to the
// worker that runs it. Progress and cancellation stay outside: they belong to
// one call, not to what is asked.
struct LevelingRequest {
    std::filesystem::path source;
    std::filesystem::path destination;
    // What happens when a file holds the destination's name by the time the
    // output is complete.
    OutputNaming::ExistingFile existing = OutputNaming::ExistingFile::keepAndNumber;
    LevelingParameters parameters;
    double ceilingDb = -1.0; // true peak, dBTP
    bool mono = false;       // mix the audio down to one channel
    // Where a 24-bit WAV of the leveled audio goes beside a video's output;
    // written only for a source with video.
    std::optional<std::filesystem::path> sidecar;

    friend bool operator==(const LevelingRequest&, const LevelingRequest&) = default;
};

} // namespace ostrand
