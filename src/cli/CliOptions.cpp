#include "CliOptions.h"

#include "media/DeliveryProfile.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <tuple>
#include <utility>

namespace ostrand {

namespace {

namespace fs = std::filesystem;

// Loudness targets and ceilings a user could mean; anything outside is a
// typing mistake rather than a wish.
constexpr double minTargetLufs = -70.0;
constexpr double maxTargetLufs = 0.0;
constexpr double minCeilingDb = -20.0;
constexpr double maxCeilingDb = 0.0;
constexpr int maxJobs = 64;

constexpr std::string_view commands[] = {"level", "measure", "check", "profiles", "presets"};

double number(const std::string& option, std::string text, double lo, double hi) {
    const std::string given = text;
    if (!text.empty() && text.front() == '+') {
        text.erase(0, 1);
    }
    double value = 0.0;
    const char* end = text.data() + text.size();
    const auto [ptr, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || ptr != end || !std::isfinite(value)) {
        throw UsageError{option + " needs a number, not \"" + given + "\""};
    }
    if (value < lo || value > hi) {
        char range[64];
        std::snprintf(range, sizeof range, "%g to %g", lo, hi);
        throw UsageError{option + " must lie between " + range};
    }
    return value;
}

// --- The options ---------------------------------------------------------------

template <bool CliOptions::*flag>
void setFlag(CliOptions& options, const std::string&) {
    options.*flag = true;
}

template <std::optional<fs::path> CliOptions::*path>
void setPath(CliOptions& options, const std::string& value) {
    options.*path = fs::path(value);
}

void setJobs(CliOptions& options, const std::string& text) {
    options.jobs = static_cast<int>(number("--jobs", text, 1, maxJobs));
    if (std::to_string(options.jobs) != (text.front() == '+' ? text.substr(1) : text)) {
        throw UsageError{"--jobs needs a whole number, not \"" + text + "\""};
    }
}

constexpr unsigned forBoth = forLevel | forMeasure;
constexpr unsigned forAll = forLevel | forMeasure | forCheck;

void setProfile(CliOptions& options, const std::string& name) {
    if (options.profile) {
        throw UsageError{"--profile and --preset name the same thing; give one"};
    }
    options.profile = name;
}

// Parsed in this order, so that the first mistake is the one reported; an
// ambiguous abbreviation lists its candidates in this order too. The help
// pages order their lines by place.
// clang-format off
constexpr CliOption table[] = {
    {'h', "help", "", answersAlone, setFlag<&CliOptions::help>,
     {{{HelpPage::general, 9, "this text;  --version  the version"}}}},
    {'\0', "version", "", answersAlone, setFlag<&CliOptions::version>, {}},
    {'\0', "target", "LUFS", forLevel,
     [](CliOptions& o, const std::string& text) {
         o.targetLufs = number("--target", text, minTargetLufs, maxTargetLufs);
     },
     {{{HelpPage::level, 1, "integrated loudness to reach (default -16)"}}}},
    {'\0', "ceiling", "DBTP", forLevel,
     [](CliOptions& o, const std::string& text) {
         o.ceilingDb = number("--ceiling", text, minCeilingDb, maxCeilingDb);
     },
     {{{HelpPage::level, 2, "true-peak ceiling (default -1)"}}}},
    {'\0', "profile", "NAME", forLevel | forCheck, setProfile,
     {{{HelpPage::level, 3, "the target and ceiling of a profile from \"ostrand-cli\n"
                            "profiles\" (\"podcast\", \"broadcast\", part of a name...);\n"
                            "the output is then checked against it"},
       {HelpPage::check, 1, "the profile to check against, from \"ostrand-cli\n"
                            "profiles\" (\"podcast\", \"EBU\", part of a name...)"}}}},
    {'\0', "preset", "NAME", forLevel | forCheck, setProfile,
     {{{HelpPage::level, 16, "the earlier name of --profile"}}}},
    {'\0', "mono", "", forLevel, setFlag<&CliOptions::mono>,
     {{{HelpPage::level, 4, "mix the audio down to one channel"}}}},
    {'\0', "noise-aware", "", forLevel,
     [](CliOptions& o, const std::string&) { o.noiseAware = true; },
     {{{HelpPage::level, 5, "the default: pauses are judged against the recording's\n"
                            "own noise floor, so room noise, hum, babble or a music\n"
                            "bed between phrases is not leveled up like speech"}}}},
    // After --noise-aware: given both, the usage error comes later.
    {'\0', "exact", "", forLevel,
     [](CliOptions& o, const std::string&) { o.noiseAware = false; },
     {{{HelpPage::level, 6, "the original plan, gating pauses against an absolute\n"
                            "floor only: for material with no pauses to protect, or\n"
                            "to reproduce earlier results"}}}},
    {'\0', "wav-sidecar", "", forLevel, setFlag<&CliOptions::wavSidecar>,
     {{{HelpPage::level, 7, "also write a 24-bit WAV of the leveled audio beside a\n"
                            "leveled video"}}}},
    {'o', "output", "FILE", forLevel, setPath<&CliOptions::output>,
     {{{HelpPage::level, 8, "write the leveled file exactly here (one input only)"}}}},
    {'\0', "output-dir", "DIR", forLevel, setPath<&CliOptions::outputDir>,
     {{{HelpPage::level, 9, "write the leveled files into DIR (made if missing)"}}}},
    {'\0', "json", "", forAll, setFlag<&CliOptions::json>,
     {{{HelpPage::general, 6, "one JSON object per file (JSON Lines); a path that is\n"
                              "not UTF-8 also comes as base64 bytes in KEYBytes"}}}},
    {'\0', "plot", "FILE", forBoth, setPath<&CliOptions::plot>,
     {{{HelpPage::level, 13, "also draw the loudness of input and output over time,\n"
                             "the gain, the limiter and the pauses: a PNG or SVG\n"
                             "picture by FILE's extension (one input only)"},
       {HelpPage::measure, 1, "also draw the short-term loudness over time: a PNG or\n"
                              "SVG picture by FILE's extension (one input only)"}}}},
    {'\0', "plot-dir", "DIR", forBoth, setPath<&CliOptions::plotDir>,
     {{{HelpPage::level, 14, "draw a PNG picture of each file into DIR (made if\n"
                             "missing), named after its output: \"NAME leveled.png\""},
       {HelpPage::measure, 2, "draw a PNG picture of each file into DIR (made if\n"
                              "missing), named after the file: \"NAME.png\"; a name\n"
                              "already taken gives \"NAME 2.png\""}}}},
    {'j', "jobs", "N", forAll, setJobs,
     {{{HelpPage::general, 1, "files processed at once (default: the number of cores)"}}}},
    {'r', "recursive", "", forAll, setFlag<&CliOptions::recursive>,
     {{{HelpPage::general, 2, "take the media files in folders and their subfolders"}}}},
    {'\0', "input-list", "FILE", forAll, setPath<&CliOptions::inputList>,
     {{{HelpPage::general, 3, "also take the files listed in FILE, one a line; FILE\n"
                              "\"-\", or \"-\" among the inputs, reads standard input"}}}},
    {'0', "", "", forAll, setFlag<&CliOptions::nulSeparated>,
     {{{HelpPage::general, 4, "the lists are separated by NUL characters, not lines"}}}},
    {'\0', "include-leveled", "", forAll, setFlag<&CliOptions::includeLeveled>,
     {{{HelpPage::general, 5, "also take files named \"... leveled.EXT\" that a folder\n"
                              "or a list brings, which are skipped otherwise"}}}},
    {'f', "force", "", forBoth, setFlag<&CliOptions::force>,
     {{{HelpPage::level, 10, "replace an existing output or picture instead of\n"
                             "numbering the new one (or, with --output or --plot,\n"
                             "instead of failing)"},
       {HelpPage::measure, 3, "replace an existing picture instead of numbering the\n"
                              "new one (or, with --plot, instead of failing)"}}}},
    {'\0', "skip-existing", "", forLevel, setFlag<&CliOptions::skipExisting>,
     {{{HelpPage::level, 11, "skip a file whose output name is already taken"}}}},
    {'n', "dry-run", "", forLevel, setFlag<&CliOptions::dryRun>,
     {{{HelpPage::level, 12, "print what would be written, write nothing"}}}},
    {'q', "quiet", "", forAll, setFlag<&CliOptions::quiet>,
     {{{HelpPage::general, 7, "only errors and JSON; no progress, notes or summary"}}}},
    {'v', "verbose", "", forAll, setFlag<&CliOptions::verbose>,
     {{{HelpPage::general, 8, "also say which file goes where as it starts"}}}},
    // For packaging, which installs the script it prints.
    {'\0', "print-completion", "SHELL", answersAlone | hidden,
     [](CliOptions& o, const std::string& shell) { o.completionShell = shell; }, {}},
};
// clang-format on

std::size_t rowOf(const CliOption& option) {
    return static_cast<std::size_t>(&option - table);
}

const CliOption* optionNamed(std::string_view name) {
    for (const CliOption& option : table) {
        if (option.longName == name ||
            (option.shortName != '\0' && name == std::string_view(&option.shortName, 1))) {
            return &option;
        }
    }
    return nullptr;
}

// "--out-d" becomes "--output-dir" when no other option starts so.
std::string expandAbbreviation(const std::string& arg) {
    if (arg.rfind("--", 0) != 0 || arg.size() == 2) {
        return arg;
    }
    const auto eq = arg.find('=');
    const std::string name = arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
    std::vector<std::string_view> matches;
    for (const CliOption& option : table) {
        if (option.longName.empty() || (option.use & hidden) != 0) {
            continue;
        }
        if (option.longName == name) {
            return arg;
        }
        if (option.longName.starts_with(name)) {
            matches.push_back(option.longName);
        }
    }
    if (matches.size() > 1) {
        std::string list;
        for (const auto match : matches) {
            list += (list.empty() ? "--" : ", --") + std::string(match);
        }
        throw UsageError{"--" + name + " is ambiguous (" + list + ")"};
    }
    if (matches.empty()) {
        return arg;
    }
    return "--" + std::string(matches.front()) + (eq == std::string::npos ? "" : arg.substr(eq));
}

// The arguments sorted into options, their values and the rest. Bytes stay
// bytes: a file name need not be UTF-8 ("caf\xe9.wav" from an old Latin-1
// disk). "-qj2" is -q and -j 2; a value follows its option or an "=";
// after "--" everything is a file.
struct Words {
    std::vector<const CliOption*> given;          // each time an option appears
    std::vector<std::vector<std::string>> values; // by the option's row
    std::vector<std::string> unknown;             // names without their dashes
    std::string mistake;                          // the last missing or unwanted value
    std::vector<std::string> positional;

    bool contains(const CliOption& option) const {
        return std::find(given.begin(), given.end(), &option) != given.end();
    }
};

Words sortedWords(const std::vector<std::string>& args) {
    Words words;
    words.values.resize(std::size(table));
    const auto found = [&words](const std::string& name) {
        const CliOption* option = optionNamed(name);
        if (option != nullptr) {
            words.given.push_back(option);
        } else {
            words.unknown.push_back(name);
        }
        return option;
    };
    // The value of `option` in `arg` after "=", else in the next argument.
    const auto takeValue = [&](const CliOption& option, const std::string& arg, std::size_t& at) {
        const auto assign = arg.find('=');
        if (option.valueName.empty()) {
            if (assign != std::string::npos) {
                words.mistake = arg.substr(0, assign) + " takes no value";
            }
        } else if (assign != std::string::npos) {
            words.values[rowOf(option)].push_back(arg.substr(assign + 1));
        } else if (++at == args.size()) {
            words.mistake = arg + " needs a value";
        } else {
            words.values[rowOf(option)].push_back(args[at]);
        }
    };
    bool onlyFiles = false;
    for (std::size_t at = 0; at < args.size(); ++at) {
        const std::string& arg = args[at];
        if (onlyFiles || arg.size() < 2 || arg.front() != '-') {
            words.positional.push_back(arg);
        } else if (arg == "--") {
            onlyFiles = true;
        } else if (arg.starts_with("--")) {
            if (const CliOption* option = found(arg.substr(2, arg.find('=') - 2))) {
                takeValue(*option, arg, at);
            }
        } else {
            // Each letter an option, until one that takes the rest as its value.
            std::string name;
            bool valueFound = false;
            for (std::size_t pos = 1; pos < arg.size(); ++pos) {
                name = arg.substr(pos, 1);
                const CliOption* option = found(name);
                if (option == nullptr) {
                    continue;
                }
                const bool more = pos + 1 < arg.size();
                if (!option->valueName.empty()) {
                    if (more) {
                        words.values[rowOf(*option)].push_back(
                            arg.substr(arg[pos + 1] == '=' ? pos + 2 : pos + 1));
                        valueFound = true;
                    }
                    break;
                }
                if (more && arg[pos + 1] == '=') {
                    break;
                }
            }
            const CliOption* last = optionNamed(name);
            if (!valueFound && last != nullptr) {
                takeValue(*last, arg, at);
            }
        }
    }
    return words;
}

std::string displayName(const CliOption& option) {
    return option.longName.empty() ? std::string("-") + option.shortName
                                   : "--" + std::string(option.longName);
}

// --- Help ------------------------------------------------------------------------

constexpr std::size_t helpColumn = 23;

struct Page {
    HelpPage page;
    std::string_view topic;
    const char* intro;
    const char* outro;
    unsigned use; // the options it points to the general page for
};

constexpr Page pages[] = {
    {HelpPage::general, "", R"(usage: ostrand-cli level [options] FILE|FOLDER|- ...
       ostrand-cli measure [options] FILE|FOLDER|- ...
       ostrand-cli check --profile NAME [options] FILE|FOLDER|- ...
       ostrand-cli profiles
       ostrand-cli help [COMMAND]

level     evens out the loudness of the speech in each file and writes the
          result beside it as "NAME leveled.EXT"
measure   prints the loudness, range and peaks of each file, as a meter does
check     tells whether each file meets a delivery profile, criterion by
          criterion
profiles  lists the delivery profiles, built in and your own ("presets" is
          its earlier name)
help      explains a command: "ostrand-cli help check"

Common options:
)",
     R"(
Exit status: 0 when every file succeeded (or was skipped; for check: met the
profile), 1 when any failed (could not be read), 2 for a usage error, 3 when
check read every file and one or more do not meet the profile, 130 after
Ctrl-C, 143 after SIGTERM.
)",
     0},
    {HelpPage::level, "level", R"(usage: ostrand-cli level [options] FILE|FOLDER|- ...

Evens out the loudness of the speech in each file and writes the result
beside it as "NAME leveled.EXT" (" 2", " 3" ... when that exists). The file
keeps its container (AVI and other video files become Matroska, other audio
files M4A); video, subtitles, chapters and cover art are copied untouched;
audio is re-encoded (AAC; Opus in WebM; 24-bit WAV for WAV and AIFF; FLAC
stays FLAC). A file appears only once it is complete; an existing file is
never replaced without --force.

)",
     "", forLevel},
    {HelpPage::measure, "measure", R"(usage: ostrand-cli measure [options] FILE|FOLDER|- ...

Measures each file as a loudness meter in EBU Mode does (ITU-R BS.1770-4,
EBU Tech 3341 and 3342) on the file's own channel layout (surround channels
weigh 1.41, the LFE channel is left out): integrated loudness (LUFS), true
peak (dBTP), sample peak (dBFS), loudness range (LU), maximum momentary and
short-term loudness (LUFS), with the duration, rate and layout; and the
loudness of the speech alone, music and other sound between it left out. A
file with several audio tracks gets these for each track and for their mix.

)",
     "", forMeasure},
    {HelpPage::check, "check",
     R"(usage: ostrand-cli check --profile NAME [options] FILE|FOLDER|- ...

Measures each file (a file with several audio tracks on their mix, as it is
leveled) and prints, for every criterion of the profile, what it requires,
what the file measures, and pass or fail with the margin; "not measurable"
where the file is too short for a figure, or has no speech for a profile
measured on speech. A file meets the profile when every criterion passes.

)",
     R"(
Exit status: 0 when every file meets the profile, 3 when every file was
read and one or more do not, 1 when a file could not be read (whatever the
others gave), 2 for a usage error.
)",
     forCheck},
    {HelpPage::none, "profiles", R"(usage: ostrand-cli profiles

Lists the delivery profiles that "check --profile NAME" and "level --profile
NAME" take, with their criteria: the built-in ones, then your own from
profiles.ini in Ostrand's configuration folder (~/.config/Ostrand). There,
"[Name]" starts a profile and "field = value" lines give its criteria:

  [Morning show]
  target = -18 LUFS
  tolerance = 1 LU
  measured-on = speech
  true-peak = -1.5 dBTP
  loudness-range = at most 12 LU

A profile with a mistake is named with its line and left out whole.
)",
     "", 0},
    {HelpPage::none, "presets", R"(usage: ostrand-cli presets

The earlier name of "ostrand-cli profiles".
)",
     "", 0},
};

// The options described on `page`, in their places, with their texts.
std::vector<std::pair<const CliOption*, std::string_view>> describedOn(HelpPage page) {
    std::vector<std::tuple<int, const CliOption*, std::string_view>> lines;
    for (const CliOption& option : table) {
        for (const CliOptionDoc& doc : option.docs) {
            if (doc.page == page && page != HelpPage::none) {
                lines.emplace_back(doc.place, &option, doc.text);
            }
        }
    }
    std::sort(lines.begin(), lines.end(),
              [](const auto& a, const auto& b) { return std::get<0>(a) < std::get<0>(b); });
    std::vector<std::pair<const CliOption*, std::string_view>> described;
    for (const auto& [place, option, text] : lines) {
        described.emplace_back(option, text);
    }
    return described;
}

// "-o, --output FILE", as the help pages name an option.
std::string synopsis(const CliOption& option) {
    std::string names = option.shortName == '\0' ? "" : std::string("-") + option.shortName;
    if (!option.longName.empty()) {
        names += (names.empty() ? "--" : ", --") + std::string(option.longName);
    }
    if (!option.valueName.empty()) {
        names += " " + std::string(option.valueName);
    }
    return names;
}

std::string pageText(const Page& page) {
    std::string text = page.intro;
    const std::string indent(helpColumn, ' ');
    for (const auto& [option, description] : describedOn(page.page)) {
        std::string line = "  " + synopsis(*option);
        line.resize(std::max(helpColumn, line.size() + 1), ' ');
        for (std::size_t at = 0; at <= description.size();) {
            const std::size_t end = std::min(description.find('\n', at), description.size());
            text +=
                (at == 0 ? line : indent) + std::string(description.substr(at, end - at)) + '\n';
            at = end + 1;
        }
    }
    if (page.use != 0) {
        std::string common;
        for (const auto& [option, description] : describedOn(HelpPage::general)) {
            if ((option->use & page.use) != 0) {
                common += (common.empty() ? "" : ", ") + (option->shortName != '\0'
                                                              ? std::string("-") + option->shortName
                                                              : displayName(*option));
            }
        }
        text += "  " + common + ": see\n" + indent + "\"ostrand-cli help\"\n";
    }
    return text + page.outro;
}

std::string commandList() {
    std::string list;
    for (const std::string_view command : commands) {
        list += (list.empty() ? "" : ", ") + std::string(command);
    }
    return list;
}

// The arguments, abbreviations written out, sorted; throws UsageError for
// an option that is unknown or lacks or refuses its value.
Words checkedWords(std::span<const std::string> args) {
    std::vector<std::string> arguments;
    bool onlyFiles = false;
    for (const std::string& arg : args) {
        onlyFiles = onlyFiles || arg == "--";
        arguments.push_back(onlyFiles ? arg : expandAbbreviation(arg));
    }
    Words words = sortedWords(arguments);
    if (!words.mistake.empty()) {
        throw UsageError{words.mistake};
    }
    if (words.unknown.size() == 1) {
        const std::string& name = words.unknown.front();
        throw UsageError{"unknown option " + std::string(name.size() == 1 ? "-" : "--") + name};
    }
    if (!words.unknown.empty()) {
        std::string names;
        for (const std::string& name : words.unknown) {
            names += (names.empty() ? "" : ", ") + name;
        }
        throw UsageError{"unknown options: " + names};
    }
    return words;
}

} // namespace

std::span<const CliOption> cliOptionTable() {
    return table;
}

CliOptions parseCliOptions(std::span<const std::string> args, int defaultJobs) {
    const Words words = checkedWords(args);
    const auto apply = [&](CliOptions& o, const CliOption& option) {
        const std::vector<std::string>& values = words.values[rowOf(option)];
        if (values.size() > 1) {
            throw UsageError{displayName(option) + " is given more than once"};
        }
        option.apply(o, values.empty() ? std::string() : values.front());
    };

    CliOptions o;
    if (!words.positional.empty()) {
        o.command = words.positional.front();
        o.inputs.assign(words.positional.begin() + 1, words.positional.end());
    }
    bool answered = false;
    for (const CliOption& option : table) {
        if ((option.use & answersAlone) != 0 && words.contains(option)) {
            apply(o, option);
            answered = true;
        }
    }
    if (answered) {
        return o;
    }
    if (o.command == "help") {
        if (o.inputs.size() > 1) {
            throw UsageError{"help takes one command"};
        }
        o.helpTopic = o.inputs.empty() ? "" : o.inputs.front().string();
        helpText(o.helpTopic); // checks the topic
        return o;
    }
    if (std::find(std::begin(commands), std::end(commands), o.command) == std::end(commands)) {
        throw UsageError{o.command.empty() ? "no command given"
                                           : "unknown command \"" + o.command + "\""};
    }

    o.jobs = defaultJobs;
    for (const CliOption& option : table) {
        if (words.contains(option)) {
            apply(o, option);
        }
    }

    if (o.command == "profiles" || o.command == "presets") {
        if (!o.inputs.empty() || !words.given.empty()) {
            throw UsageError{o.command + " takes no files or options"};
        }
        return o;
    }
    for (const auto& [command, use] : {std::pair{"measure", forMeasure}, {"check", forCheck}}) {
        for (const CliOption& option : table) {
            if (o.command == command && (option.use & use) == 0 && words.contains(option)) {
                throw UsageError{o.command + " takes no " + displayName(option) +
                                 " (see ostrand-cli help " + o.command + ")"};
            }
        }
    }
    if (o.command == "check" && !o.profile) {
        throw UsageError{"check needs --profile NAME (ostrand-cli profiles lists them)"};
    }
    if (o.inputs.empty() && !o.inputList) {
        throw UsageError{"no files given"};
    }
    if (o.quiet && o.verbose) {
        throw UsageError{"--quiet and --verbose exclude each other"};
    }
    if (o.force && o.skipExisting) {
        throw UsageError{"--force and --skip-existing exclude each other"};
    }
    if (words.contains(*optionNamed("exact")) && words.contains(*optionNamed("noise-aware"))) {
        throw UsageError{"--exact and --noise-aware exclude each other (noise-aware is the "
                         "default)"};
    }
    if (o.output && o.outputDir) {
        throw UsageError{"--output and --output-dir exclude each other"};
    }
    if (o.output &&
        (o.inputs.size() != 1 || o.inputList || o.recursive || o.inputs.front() == "-")) {
        throw UsageError{"--output takes exactly one input file"};
    }
    if (o.plot && o.plotDir) {
        throw UsageError{"--plot and --plot-dir exclude each other"};
    }
    if (o.plot && (o.inputs.size() != 1 || o.inputList || o.recursive || o.inputs.front() == "-")) {
        throw UsageError{"--plot takes exactly one input file (--plot-dir takes many)"};
    }
    if (o.plot) {
        std::string extension = o.plot->extension().string();
        std::transform(extension.begin(), extension.end(), extension.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (extension != ".png" && extension != ".svg") {
            throw UsageError{"--plot must end in .png or .svg"};
        }
    }
    std::error_code error;
    for (const auto& [name, folder] :
         {std::pair{"--output-dir", o.outputDir}, std::pair{"--plot-dir", o.plotDir}}) {
        if (folder && fs::exists(*folder, error) && !fs::is_directory(*folder, error)) {
            throw UsageError{std::string(name) + ": " + folder->string() + " is not a folder"};
        }
    }
    return o;
}

std::string helpText(const std::string& topic) {
    for (const Page& page : pages) {
        if (page.topic == topic && topic == "profiles") {
            std::string text = pageText(page) + "\nFields:\n";
            for (const ProfileFieldHelp& field : profileFields()) {
                std::string line = "  " + std::string(field.key);
                line.resize(std::max(helpColumn, line.size() + 1), ' ');
                text += line + std::string(field.help) + '\n';
            }
            return text;
        }
        if (page.topic == topic) {
            return pageText(page);
        }
    }
    throw UsageError{"no help for \"" + topic + "\" (commands: " + commandList() + ")"};
}
std::string completionScript(const std::string& shell) {
    if (shell != "bash") {
        throw UsageError{"no completion for \"" + shell + "\" (shells: bash)"};
    }
    // The options for `use`, or those whose value is named `valueName`,
    // joined by `separator`.
    const auto names = [](auto wanted, const char* separator) {
        std::string list;
        for (const CliOption& option : table) {
            if ((option.use & hidden) != 0 || !wanted(option)) {
                continue;
            }
            if (option.shortName != '\0') {
                list += (list.empty() ? "-" : separator + std::string("-")) + option.shortName;
            }
            if (!option.longName.empty()) {
                list += (list.empty() ? "--" : separator + std::string("--")) +
                        std::string(option.longName);
            }
        }
        return list;
    };
    const auto takenBy = [&](unsigned use) {
        return names([use](const CliOption& o) { return (o.use & (use | answersAlone)) != 0; },
                     " ");
    };
    const auto valued = [&](auto wanted) {
        return names(
            [wanted](const CliOption& o) { return !o.valueName.empty() && wanted(o.valueName); },
            "|");
    };
    const std::string files = valued([](std::string_view name) { return name == "FILE"; });
    const std::string folders = valued([](std::string_view name) { return name == "DIR"; });
    const std::string others =
        valued([](std::string_view name) { return name != "FILE" && name != "DIR"; });
    const std::string alone =
        names([](const CliOption& o) { return (o.use & answersAlone) != 0; }, " ");
    std::string commandWords;
    for (const std::string_view command : commands) {
        commandWords += std::string(command) + " ";
    }

    std::string script =
        "# bash completion for ostrand-cli; made by \"ostrand-cli --print-completion bash\"\n"
        "_ostrand_cli() {\n"
        "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
        "    local command= i\n"
        "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
        "        case ${COMP_WORDS[i]} in\n"
        "        " +
        files + "|" + folders + "|" + others +
        ") ((i++)) ;;\n"
        "        -*) ;;\n"
        "        *) command=${COMP_WORDS[i]}; break ;;\n"
        "        esac\n"
        "    done\n"
        "    case $prev in\n"
        "    " +
        files +
        ") mapfile -t COMPREPLY < <(compgen -f -- \"$cur\"); return ;;\n"
        "    " +
        folders +
        ") mapfile -t COMPREPLY < <(compgen -d -- \"$cur\"); return ;;\n"
        "    " +
        others +
        ") return ;;\n"
        "    esac\n"
        "    local words\n"
        "    case $command in\n"
        "    '') words=\"" +
        commandWords + "help " + alone +
        "\" ;;\n"
        "    help) words=\"" +
        commandWords.substr(0, commandWords.size() - 1) +
        "\" ;;\n"
        "    level) words=\"" +
        takenBy(forLevel) +
        "\" ;;\n"
        "    measure) words=\"" +
        takenBy(forMeasure) +
        "\" ;;\n"
        "    check) words=\"" +
        takenBy(forCheck) +
        "\" ;;\n"
        "    *) return ;;\n"
        "    esac\n"
        "    if [[ $cur == -* || $command == '' || $command == help ]]; then\n"
        "        mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$cur\")\n"
        "    else\n"
        "        mapfile -t COMPREPLY < <(compgen -f -- \"$cur\")\n"
        "    fi\n"
        "}\n"
        "complete -o filenames -F _ostrand_cli ostrand-cli\n";
    return script;
}

} // namespace ostrand
