#pragma once

#include <functional>
#include <ostream>
#include <span>
#include <string>

namespace ostrand {

// What the command line needs from its surroundings, so that tests can run
// it in-process.
struct CliEnvironment {
    // Draw a progress bar on the error stream (it is a terminal).
    bool progressBar = false;
    // Polled while a file is processed; true stops the run (Ctrl-C).
    std::function<bool()> interrupted;
};

// Exit status: 0 when every file succeeded, 1 when any failed, 2 for a usage
// error, 130 when interrupted.
inline constexpr int exitSuccess = 0;
inline constexpr int exitFailure = 1;
inline constexpr int exitUsage = 2;
inline constexpr int exitInterrupted = 130;

// Runs `ostrand-cli` with the arguments after the program name. Reports go
// to `out` (one line, or JSON Lines with --json), messages and the progress
// bar to `err`.
int runCli(std::span<const std::string> args, std::ostream& out, std::ostream& err,
           const CliEnvironment& environment);

} // namespace ostrand
