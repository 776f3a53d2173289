#pragma once

#include "app/OstrandSettings.h"

#include <array>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ostrand {

// A mistake in the command line; the program stops with status 2.
struct UsageError {
    std::string message;
};

// What the command line asks for, checked against itself but not yet against
// the file system (except that --output-dir is not a file).
struct CliOptions {
    std::string command; // "level", "measure", "check", "profiles", "presets", "help"
    std::string helpTopic;
    bool help = false;
    bool version = false;
    std::optional<std::string> completionShell; // --print-completion SHELL

    std::optional<double> targetLufs;
    std::optional<double> ceilingDb;
    std::optional<std::string> profile; // --profile or its earlier name --preset
    bool mono = false;
    bool noiseAware = defaultNoiseAwarePauses; // --exact turns it off
    bool wavSidecar = false;
    std::optional<std::filesystem::path> output;
    std::optional<std::filesystem::path> outputDir;
    bool json = false;
    std::optional<std::filesystem::path> plot;    // the picture of the one input
    std::optional<std::filesystem::path> plotDir; // a picture per input

    int jobs = 1;
    bool recursive = false;
    std::vector<std::filesystem::path> inputs; // as given; "-" reads a list
    std::optional<std::filesystem::path> inputList;
    bool nulSeparated = false;
    bool includeLeveled = false;

    bool force = false;
    bool skipExisting = false;
    bool dryRun = false;
    bool quiet = false;
    bool verbose = false;
};

// Which commands take an option, and how it stands among the others.
enum CliOptionUse : unsigned {
    forLevel = 1,
    forMeasure = 2,
    answersAlone = 4, // the rest of the line is not looked at (--help)
    hidden = 8,       // for packaging: no abbreviation, help, completion or man page
    forCheck = 16,
};

// The pages of "ostrand-cli help [COMMAND]" that list options.
enum class HelpPage { none, general, level, measure, check };

// An option's lines on one help page: `place` orders the page, `text` is
// its description, a line per "\n".
struct CliOptionDoc {
    HelpPage page = HelpPage::none;
    int place = 0;
    std::string_view text;
};

// Each option once: parsing, the help pages and the shell completion read
// this table, and a test holds the man page to it.
struct CliOption {
    char shortName;             // '\0' when it has none
    std::string_view longName;  // empty when it has none
    std::string_view valueName; // empty for a flag
    unsigned use;               // CliOptionUse bits
    // Records the option (and its value) in the options; throws UsageError.
    void (*apply)(CliOptions& options, const std::string& value);
    std::array<CliOptionDoc, 2> docs;
};

std::span<const CliOption> cliOptionTable();

// Parses the arguments after the program name. Long options may be shortened
// while the prefix names one option; a flag refuses a value ("--mono=yes");
// numbers may carry a "+". Throws UsageError.
CliOptions parseCliOptions(std::span<const std::string> args, int defaultJobs);

// "ostrand-cli help [TOPIC]": the general text for an empty topic, else that
// command's. Throws UsageError for an unknown topic.
std::string helpText(const std::string& topic);

// A script that completes the commands, options and file names of
// ostrand-cli in `shell` ("bash"). Throws UsageError for another shell.
std::string completionScript(const std::string& shell);

} // namespace ostrand
