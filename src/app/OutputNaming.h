#pragma once

#include <filesystem>
#include <string>
#include <string_view>

// Where a leveled file goes inside a chosen folder, shared by the desktop
// queue and the command line so that both name their outputs alike. Standard
// library only; each existence test is made at the moment of the call.
namespace ostrand::OutputNaming {

inline constexpr std::string_view leveledSuffix = " leveled";
inline constexpr std::string_view sidecarExtension = "wav";

// The output's name without extension: the source's file name without its
// last extension, then " leveled" ("Interview 3.MOV" gives "Interview 3 leveled").
std::string leveledName(const std::filesystem::path& source);

// folder/"name.extension" if nothing exists there (not even a dangling link),
// else folder/"name 2.extension", "name 3.extension", … the first free one.
// An empty extension gives names without a dot. A candidate whose existence
// cannot be determined (an unreadable folder) is returned as it is, so the
// writer reports the real problem.
std::filesystem::path uniqueLocation(const std::filesystem::path& folder, std::string_view name,
                                     std::string_view extension);

// The unique location in `folder` for the leveled output of `source`, with the
// extension LevelingEngine::outputExtension gives for it.
std::filesystem::path leveledLocation(const std::filesystem::path& source,
                                      const std::filesystem::path& folder);

// The WAV file beside a leveled video: the destination's name with "wav",
// made unique in the destination's folder ("talk leveled.mov" gives
// "talk leveled.wav", else "talk leveled 2.wav", …).
std::filesystem::path sidecarLocation(const std::filesystem::path& destination);

// Whether the source's lower-cased extension is one of the engine's video
// extensions, i.e. whether a WAV sidecar may be written beside its output.
bool isVideoSource(const std::filesystem::path& source);

} // namespace ostrand::OutputNaming
