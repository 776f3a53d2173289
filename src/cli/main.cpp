#include "Cli.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

std::atomic<int> interruptSignal{0};
int emptyInput = -1;

extern "C" void onInterrupt(int signal) {
    const int savedErrno = errno;
    interruptSignal.store(signal);
    // A wait for a list on standard input ends too: the interrupted read
    // starts again on an empty file, and so does one about to start.
    if (emptyInput >= 0) {
        ::dup2(emptyInput, STDIN_FILENO);
    }
    errno = savedErrno;
}

} // namespace

int main(int argc, char** argv) {
    // Ctrl-C stops the engine at its next block, so the writer can remove
    // its partial file instead of leaving it behind.
    emptyInput = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    // Past a file-size limit, a write then fails with a message and the run
    // cleans up, instead of the process dying mid-file.
    std::signal(SIGXFSZ, SIG_IGN);
    // A closed pipe on standard output is then a write error with a message.
    std::signal(SIGPIPE, SIG_IGN);

    const std::vector<std::string> args(argv + 1, argv + argc);
    ostrand::CliEnvironment environment;
    environment.progressBar = ::isatty(STDERR_FILENO) == 1;
    environment.terminalWidth = [] {
        winsize size{};
        return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
    };
    environment.interrupted = [] { return interruptSignal.load() != 0; };
    const int status = ostrand::runCli(args, std::cout, std::cerr, environment);
    // The shell's convention: 128 + the signal that ended the run.
    return status == ostrand::exitInterrupted ? 128 + interruptSignal.load() : status;
}
