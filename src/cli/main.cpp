#include "Cli.h"

#include <atomic>
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

std::atomic<bool> interruptRequested{false};

extern "C" void onInterrupt(int) {
    interruptRequested.store(true);
}

} // namespace

int main(int argc, char** argv) {
    // Ctrl-C stops the engine at its next block, so the writer can remove
    // its partial file instead of leaving it behind.
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);

    const std::vector<std::string> args(argv + 1, argv + argc);
    ostrand::CliEnvironment environment;
    environment.progressBar = ::isatty(STDERR_FILENO) == 1;
    environment.interrupted = [] { return interruptRequested.load(); };
    return ostrand::runCli(args, std::cout, std::cerr, environment);
}
