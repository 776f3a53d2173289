#pragma once

#include "media/LevelingEngine.h"

#include <map>
#include <optional>

namespace ostrand::test {

// The engine's arguments, those a test leaves out at their usual values.
struct Options {
    std::optional<std::filesystem::path> sidecar;
    OutputNaming::ExistingFile existing = OutputNaming::ExistingFile::replace;
    double targetLufs = -16.0;
    double ceilingDb = -1.0;
    bool mono = false;
    LevelingEngine::ProgressHandler progress;
    LevelingEngine::CancelCheck cancelled;
};

inline LevelingReport level(const std::filesystem::path& source,
                            const std::filesystem::path& destination, const Options& o = {}) {
    return LevelingEngine::process({source, destination, o.existing,
                                    LevelingParameters::forTarget(o.targetLufs), o.ceilingDb,
                                    o.mono, o.sidecar},
                                   o.progress, o.cancelled);
}

// Every file and folder under `dir`, hidden ones too, with the files' sizes.
inline std::map<std::filesystem::path, std::uintmax_t> listing(const std::filesystem::path& dir) {
    std::map<std::filesystem::path, std::uintmax_t> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir)) {
        files[entry.path()] = entry.is_regular_file() ? entry.file_size() : 0;
    }
    return files;
}

} // namespace ostrand::test
