#pragma once

#include "app/OstrandSettings.h"

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ostrand {

// A mistake in the command line; the program stops with status 2.
struct UsageError {
    std::string message;
};

// What the command line asks for, checked against itself but not yet against
// the file system (except that --output-dir is not a file).
struct CliOptions {
    std::string command; // "level", "measure", "help", "presets"
    std::string helpTopic;
    bool help = false;
    bool version = false;

    std::optional<double> target;
    std::optional<double> ceiling;
    std::optional<LoudnessPreset> preset;
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

// Parses the arguments after the program name. Long options may be shortened
// while the prefix names one option; a flag refuses a value ("--mono=yes");
// numbers may carry a "+". Throws UsageError.
CliOptions parseCliOptions(std::span<const std::string> args, int defaultJobs);

// "ostrand-cli help [TOPIC]": the general text for an empty topic, else that
// command's. Throws UsageError for an unknown topic.
std::string helpText(const std::string& topic);

// One preset a line: name, target and ceiling.
std::string presetsText();

} // namespace ostrand
