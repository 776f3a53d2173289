#pragma once

#include <filesystem>
#include <functional>
#include <istream>
#include <optional>
#include <ostream>
#include <span>
#include <string>

namespace ostrand {

// What the command line needs from its surroundings, so that tests can run
// it in-process.
struct CliEnvironment {
    // Draw a progress line on the error stream (it is a terminal).
    bool progressBar = false;
    // The terminal's width in columns, asked at each redraw (it may change).
    std::function<int()> terminalWidth;
    // Polled while a file is processed (from several threads); true stops
    // the run (Ctrl-C).
    std::function<bool()> interrupted;
    // Where "-" reads its list of files; standard input when null.
    std::istream* input = nullptr;
    // The user's profiles file; UserProfiles::location() when empty.
    std::optional<std::filesystem::path> profilesFile;
};

// Exit status: 0 when every file succeeded or was skipped, 1 when any
// failed, 2 for a usage error, 3 when check read every file and one or more
// do not meet the profile, 130 when interrupted.
inline constexpr int exitSuccess = 0;
inline constexpr int exitFailure = 1;
inline constexpr int exitUsage = 2;
inline constexpr int exitNotMet = 3;
inline constexpr int exitInterrupted = 130;

// Runs `ostrand-cli` with the arguments after the program name. Reports go
// to `out` (one line, or JSON Lines with --json), messages and the progress
// bar to `err`.
int runCli(std::span<const std::string> args, std::ostream& out, std::ostream& err,
           const CliEnvironment& environment);

} // namespace ostrand
