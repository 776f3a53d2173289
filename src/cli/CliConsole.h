#pragma once

#include "app/FilePaths.h"
#include "media/LevelingReport.h"

#include <functional>
#include <map>
#include <mutex>
#include <ostream>
#include <string>

namespace ostrand {

// The terminal side of a batch, shared by its worker threads: whole report
// lines on standard output, messages on standard error, and one progress
// line ("[3 of 12] talk.wav 45% · intro.wav 12%") that fits the terminal's
// width and is cleared before anything else is written. A failed write to
// standard output (a full disk, a closed pipe) is remembered and said once.
class CliConsole {
public:
    CliConsole(std::ostream& out, std::ostream& err, bool drawProgress,
               std::function<int()> terminalWidth, std::size_t total);
    CliConsole(const CliConsole&) = delete;
    CliConsole& operator=(const CliConsole&) = delete;

    // Whole lines, ending in a newline; shown escaped (escapedText).
    void report(const std::string& lines);
    void message(const std::string& lines);

    // A file began in `slot` (a worker) or moved on; percent 0 to 100.
    void started(int slot, const std::string& name);
    void progress(int slot, const LevelingProgress& value);
    void ended(int slot);
    // Removes the progress line for good.
    void finish();

    // Whether standard output refused a write.
    bool outputFailed() const;

private:
    void clearLine();
    void drawLine();

    mutable std::mutex m_mutex;
    std::ostream& m_out;
    std::ostream& m_err;
    bool m_drawProgress;
    std::function<int()> m_terminalWidth;
    std::size_t m_total;
    std::size_t m_begun = 0;
    struct Running {
        std::string name;
        int percent = 0;
    };
    std::map<int, Running> m_running;
    std::string m_drawn; // the progress line on screen, empty when none
    bool m_outputFailed = false;
};

// `text` safe to show on a terminal, as the window shows names.
using FilePaths::escapedText;

// JSON text must be UTF-8. Text that is not is given as the terminal shows
// it ("caf\xe9.wav").
QString jsonText(const std::string& text);

// The first `columns` characters of `text` (UTF-8), ending in "…" when cut.
std::string fitToColumns(const std::string& text, std::size_t columns);

} // namespace ostrand
