#pragma once

#include <filesystem>
#include <string>
#include <string_view>

// Where a leveled file goes inside a chosen folder, shared by the desktop
// queue, the command line and the writer that finally claims the name, so
// that all name their outputs alike. Standard library only; each existence
// test is made at the moment of the call, and only the writer's claim at the
// end is binding.
namespace ostrand::OutputNaming {

// What a finished output does to a file that holds its name by then: replace
// it (a name the user chose and confirmed), leave it alone and take the next
// free numbered name, or leave it alone and fail (a name the user chose
// while nothing was there).
enum class ExistingFile { replace, keepAndNumber, refuse };

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

// The name `number` of the series that `first` starts: `first` itself for 1,
// else its name with " N" before the extension, counted on from a number
// `first` already carries ("talk leveled 2.wav", 3 gives "talk leveled 4.wav").
std::filesystem::path numberedLocation(const std::filesystem::path& first, int number);

// The unique location in `folder` for the leveled output of `source`, with the
// extension the output format gives it.
std::filesystem::path leveledLocation(const std::filesystem::path& source,
                                      const std::filesystem::path& folder);

// The WAV file beside a leveled video: the destination's name with "wav",
// made unique in the destination's folder ("talk leveled.mov" gives
// "talk leveled.wav", else "talk leveled 2.wav", …).
std::filesystem::path sidecarLocation(const std::filesystem::path& destination);

// Whether a file's name is one this rule gives a leveled output: its name
// without extension ends in " leveled" or " leveled N" ("talk leveled 2.wav").
bool isLeveledName(const std::filesystem::path& file);

// Whether the source's extension names a video container, i.e. whether a WAV
// sidecar may be written beside its output.
bool isVideoSource(const std::filesystem::path& source);

} // namespace ostrand::OutputNaming
