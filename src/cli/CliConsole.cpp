#include "CliConsole.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace ostrand {

namespace {

bool isContinuationByte(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

std::size_t columnsOf(const std::string& text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return !isContinuationByte(c); }));
}

} // namespace

QString jsonText(const std::string& text) {
    return FilePaths::isUtf8(text) ? QString::fromStdString(text) : FilePaths::shown(text);
}

std::string fitToColumns(const std::string& text, std::size_t columns) {
    if (columnsOf(text) <= columns) {
        return text;
    }
    if (columns == 0) {
        return {};
    }
    std::string cut;
    std::size_t used = 0;
    for (const char c : text) {
        if (!isContinuationByte(c) && ++used > columns - 1) {
            break;
        }
        cut.push_back(c);
    }
    return cut + "\u2026";
}

CliConsole::CliConsole(std::ostream& out, std::ostream& err, bool drawProgress,
                       std::function<int()> terminalWidth, std::size_t total)
    : m_out(out)
    , m_err(err)
    , m_drawProgress(drawProgress)
    , m_terminalWidth(std::move(terminalWidth))
    , m_total(total) {}

void CliConsole::report(const std::string& lines) {
    const std::lock_guard lock(m_mutex);
    if (m_outputFailed) {
        return;
    }
    clearLine();
    errno = 0;
    m_out << escapedText(lines) << std::flush;
    if (!m_out) {
        m_outputFailed = true;
        const int error = errno;
        m_err << "ostrand-cli: cannot write to standard output"
              << (error != 0 ? std::string(": ") + std::strerror(error) : std::string()) << '\n'
              << std::flush;
    }
    drawLine();
}

void CliConsole::message(const std::string& lines) {
    const std::lock_guard lock(m_mutex);
    clearLine();
    m_err << escapedText(lines) << std::flush;
    drawLine();
}

void CliConsole::started(int slot, const std::string& name) {
    const std::lock_guard lock(m_mutex);
    ++m_begun;
    m_running[slot] = {escapedText(name), 0};
    drawLine();
}

void CliConsole::progress(int slot, const LevelingProgress& value) {
    const std::lock_guard lock(m_mutex);
    const int percent = static_cast<int>(std::clamp(value.fraction, 0.0, 1.0) * 100.0);
    auto running = m_running.find(slot);
    if (running == m_running.end() || running->second.percent == percent) {
        return;
    }
    running->second.percent = percent;
    drawLine();
}

void CliConsole::ended(int slot) {
    const std::lock_guard lock(m_mutex);
    m_running.erase(slot);
    drawLine();
}

void CliConsole::finish() {
    const std::lock_guard lock(m_mutex);
    clearLine();
    m_drawProgress = false;
}

bool CliConsole::outputFailed() const {
    const std::lock_guard lock(m_mutex);
    return m_outputFailed;
}

void CliConsole::clearLine() {
    if (!m_drawn.empty()) {
        m_err << "\r\033[K" << std::flush;
        m_drawn.clear();
    }
}

void CliConsole::drawLine() {
    if (!m_drawProgress || m_running.empty()) {
        clearLine();
        return;
    }
    std::string line = "[" + std::to_string(m_begun) + " of " + std::to_string(m_total) + "]";
    for (const auto& [slot, running] : m_running) {
        line += (line.back() == ']' ? " " : " \u00b7 ") + running.name + " " +
                std::to_string(running.percent) + "%";
    }
    // One column short of the width: a line that fills it wraps on some
    // terminals, and then "\r" no longer returns to its start.
    const int width = m_terminalWidth ? m_terminalWidth() : 80;
    line = fitToColumns(line, static_cast<std::size_t>(std::max(width, 10) - 1));
    if (line == m_drawn) {
        return;
    }
    m_err << "\r\033[K" << line << std::flush;
    m_drawn = line;
}

} // namespace ostrand
