#include "CliOptions.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QStringList>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
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

constexpr const char* generalHelp = R"(usage: ostrand-cli level [options] FILE|FOLDER|- ...
       ostrand-cli measure [options] FILE|FOLDER|- ...
       ostrand-cli presets
       ostrand-cli help [COMMAND]

level     evens out the loudness of the speech in each file and writes the
          result beside it as "NAME leveled.EXT"
measure   prints the loudness, range and peaks of each file, as a meter does
presets   lists the loudness presets
help      explains a command: "ostrand-cli help level"

Common options:
  -j, --jobs N         files processed at once (default: the number of cores)
  -r, --recursive      take the media files in folders and their subfolders
  --input-list FILE    also take the files listed in FILE, one a line; FILE
                       "-", or "-" among the inputs, reads standard input
  -0                   the lists are separated by NUL characters, not lines
  --include-leveled    also take files named "... leveled.EXT" that a folder
                       or a list brings, which are skipped otherwise
  --json               one JSON object per file (JSON Lines)
  -q, --quiet          only errors and JSON; no progress, notes or summary
  -v, --verbose        also say which file goes where as it starts
  -h, --help           this text;  --version  the version

Exit status: 0 when every file succeeded (or was skipped), 1 when any
failed, 2 for a usage error, 130 after Ctrl-C, 143 after SIGTERM.
)";

constexpr const char* levelHelp = R"(usage: ostrand-cli level [options] FILE|FOLDER|- ...

Evens out the loudness of the speech in each file and writes the result
beside it as "NAME leveled.EXT" (" 2", " 3" ... when that exists). The file
keeps its container (AVI and other video files become Matroska, other audio
files M4A); video, subtitles, chapters and cover art are copied untouched;
audio is re-encoded (AAC; Opus in WebM; 24-bit WAV for WAV and AIFF; FLAC
stays FLAC). A file appears only once it is complete; an existing file is
never replaced without --force.

  --target LUFS        integrated loudness to reach (default -16)
  --ceiling DBTP       true-peak ceiling (default -1)
  --preset NAME        a preset from "ostrand-cli presets" ("podcast",
                       "streaming", "broadcast" or part of a name)
  --mono               mix the audio down to one channel
  --noise-aware        the default: pauses are judged against the recording's
                       own noise floor, so room noise, hum, babble or a music
                       bed between phrases is not leveled up like speech
  --exact              the original plan, gating pauses against an absolute
                       floor only: for material with no pauses to protect, or
                       to reproduce earlier results
  --wav-sidecar        also write a 24-bit WAV of the leveled audio beside a
                       leveled video
  -o, --output FILE    write the leveled file exactly here (one input only)
  --output-dir DIR     write the leveled files into DIR (made if missing)
  -f, --force          replace an existing output or picture instead of
                       numbering the new one (or, with --output or --plot,
                       instead of failing)
  --skip-existing      skip a file whose output name is already taken
  -n, --dry-run        print what would be written, write nothing
  --plot FILE          also draw the loudness of input and output over time,
                       the gain, the limiter and the pauses: a PNG or SVG
                       picture by FILE's extension (one input only)
  --plot-dir DIR       draw a PNG picture of each file into DIR (made if
                       missing), named after its output: "NAME leveled.png"
  -j, -r, --input-list, -0, --include-leveled, --json, -q, -v: see
                       "ostrand-cli help"
)";

constexpr const char* measureHelp = R"(usage: ostrand-cli measure [options] FILE|FOLDER|- ...

Measures each file as a loudness meter in EBU Mode does (ITU-R BS.1770-4,
EBU Tech 3341 and 3342) on the file's own channel layout (surround channels
weigh 1.41, the LFE channel is left out): integrated loudness (LUFS), true
peak (dBTP), sample peak (dBFS), loudness range (LU), maximum momentary and
short-term loudness (LUFS), with the duration, rate and layout. A file with
several audio tracks gets these for each track and for their mix.

  --plot FILE          also draw the short-term loudness over time: a PNG or
                       SVG picture by FILE's extension (one input only)
  --plot-dir DIR       draw a PNG picture of each file into DIR (made if
                       missing), named after the file: "NAME.png"; a name
                       already taken gives "NAME 2.png"
  -f, --force          replace an existing picture instead of numbering the
                       new one (or, with --plot, instead of failing)
  -j, -r, --input-list, -0, --include-leveled, --json, -q, -v: see
                       "ostrand-cli help"
)";

constexpr const char* presetsHelp = R"(usage: ostrand-cli presets

Lists the loudness presets that "level --preset NAME" takes.
)";

std::string normalized(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (std::isalnum(static_cast<unsigned char>(c))) {
            out.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
        }
    }
    return out;
}

LoudnessPreset presetNamed(const std::string& name) {
    std::string wanted = normalized(name);
    if (wanted == "streaming") {
        wanted = "youtube";
    }
    std::vector<LoudnessPreset> matches;
    for (const LoudnessPreset& preset : LoudnessPreset::all()) {
        if (!wanted.empty() &&
            normalized(preset.name.toStdString()).find(wanted) != std::string::npos) {
            matches.push_back(preset);
        }
    }
    if (matches.size() != 1) {
        std::string known;
        for (const LoudnessPreset& preset : LoudnessPreset::all()) {
            known += (known.empty() ? "\"" : ", \"") + preset.name.toStdString() + "\"";
        }
        throw UsageError{"unknown preset \"" + name + "\" (presets: " + known + ")"};
    }
    return matches.front();
}

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

struct OptionSpec {
    const char* shortName; // or nullptr
    const char* longName;  // or nullptr
    const char* valueName; // nullptr for a flag
    bool levelOnly;
};

// clang-format off
constexpr OptionSpec specs[] = {
    {"h", "help", nullptr, false},          {nullptr, "version", nullptr, false},
    {nullptr, "target", "LUFS", true},      {nullptr, "ceiling", "DBTP", true},
    {nullptr, "preset", "NAME", true},      {nullptr, "mono", nullptr, true},
    {nullptr, "noise-aware", nullptr, true}, {nullptr, "exact", nullptr, true},
    {nullptr, "wav-sidecar", nullptr, true}, {"o", "output", "FILE", true},
    {nullptr, "output-dir", "DIR", true},   {nullptr, "json", nullptr, false},
    {nullptr, "plot", "FILE", false},       {nullptr, "plot-dir", "DIR", false},
    {"j", "jobs", "N", false},              {"r", "recursive", nullptr, false},
    {nullptr, "input-list", "FILE", false}, {"0", nullptr, nullptr, false},
    {nullptr, "include-leveled", nullptr, false}, {"f", "force", nullptr, false},
    {nullptr, "skip-existing", nullptr, true}, {"n", "dry-run", nullptr, true},
    {"q", "quiet", nullptr, false},         {"v", "verbose", nullptr, false},
};
// clang-format on

// "--out-d" becomes "--output-dir" when no other option starts so.
std::string expandAbbreviation(const std::string& arg) {
    if (arg.rfind("--", 0) != 0 || arg.size() == 2) {
        return arg;
    }
    const auto eq = arg.find('=');
    const std::string name = arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
    std::vector<std::string> matches;
    for (const OptionSpec& spec : specs) {
        if (spec.longName == nullptr) {
            continue;
        }
        const std::string candidate = spec.longName;
        if (candidate == name) {
            return arg;
        }
        if (candidate.rfind(name, 0) == 0) {
            matches.push_back(candidate);
        }
    }
    if (matches.size() > 1) {
        std::string list;
        for (const auto& match : matches) {
            list += (list.empty() ? "--" : ", --") + match;
        }
        throw UsageError{"--" + name + " is ambiguous (" + list + ")"};
    }
    if (matches.empty()) {
        return arg;
    }
    return "--" + matches.front() + (eq == std::string::npos ? "" : arg.substr(eq));
}

// Qt's parser holds text, but an argument is bytes, and a file name need not
// be UTF-8 ("caf\xe9.wav" from an old Latin-1 disk): each byte goes in as
// one Latin-1 character and comes out as that byte again, where a decoding
// would turn it into U+FFFD and name another file. Option names are ASCII,
// so they read the same either way.
QString carried(const std::string& bytes) {
    return QString::fromLatin1(bytes.data(), static_cast<qsizetype>(bytes.size()));
}

std::string bytes(const QString& text) {
    return text.toLatin1().toStdString();
}

QString displayName(const OptionSpec& spec) {
    return spec.longName != nullptr ? QStringLiteral("--") + QLatin1String(spec.longName)
                                    : QStringLiteral("-") + QLatin1String(spec.shortName);
}

std::string usageMessage(QString text) {
    // Qt's words, in our style: "Unknown option 'loud'." -> "unknown option --loud"
    text = text.trimmed();
    if (text.endsWith(QLatin1Char('.'))) {
        text.chop(1);
    }
    if (text.startsWith(QLatin1String("Unknown option '"))) {
        const QString name = text.mid(16).chopped(1);
        return "unknown option " + std::string(name.size() == 1 ? "-" : "--") + bytes(name);
    }
    if (text.startsWith(QLatin1String("Missing value after '"))) {
        return bytes(text.mid(21).chopped(1)) + " needs a value";
    }
    if (text.startsWith(QLatin1String("Unexpected value after '"))) {
        return bytes(text.mid(24).chopped(1)) + " takes no value";
    }
    if (!text.isEmpty()) {
        text[0] = text[0].toLower();
    }
    return bytes(text);
}

} // namespace

CliOptions parseCliOptions(std::span<const std::string> args, int defaultJobs) {
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsCompactedShortOptions);
    std::vector<QCommandLineOption> options;
    for (const OptionSpec& spec : specs) {
        QStringList names;
        if (spec.shortName != nullptr) {
            names << QLatin1String(spec.shortName);
        }
        if (spec.longName != nullptr) {
            names << QLatin1String(spec.longName);
        }
        options.emplace_back(names);
        if (spec.valueName != nullptr) {
            options.back().setValueName(QLatin1String(spec.valueName));
        }
        parser.addOption(options.back());
    }
    QStringList arguments{QStringLiteral("ostrand-cli")};
    bool onlyFiles = false;
    for (const std::string& arg : args) {
        onlyFiles = onlyFiles || arg == "--";
        arguments << carried(onlyFiles ? arg : expandAbbreviation(arg));
    }
    if (!parser.parse(arguments)) {
        throw UsageError{usageMessage(parser.errorText())};
    }

    const auto set = [&](const char* name) { return parser.isSet(QLatin1String(name)); };
    const auto value = [&](const char* name) -> std::optional<std::string> {
        const QStringList values = parser.values(QLatin1String(name));
        if (values.isEmpty()) {
            return std::nullopt;
        }
        if (values.size() > 1) {
            throw UsageError{std::string("--") + name + " is given more than once"};
        }
        return bytes(values.front());
    };

    CliOptions o;
    o.help = set("help");
    o.version = set("version");
    QStringList positional = parser.positionalArguments();
    if (!positional.isEmpty()) {
        o.command = bytes(positional.takeFirst());
    }
    for (const QString& input : positional) {
        o.inputs.emplace_back(bytes(input));
    }
    if (o.help || o.version) {
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
    if (o.command != "level" && o.command != "measure" && o.command != "presets") {
        throw UsageError{o.command.empty() ? "no command given"
                                           : "unknown command \"" + o.command + "\""};
    }

    if (const auto text = value("target")) {
        o.target = number("--target", *text, minTargetLufs, maxTargetLufs);
    }
    if (const auto text = value("ceiling")) {
        o.ceiling = number("--ceiling", *text, minCeilingDb, maxCeilingDb);
    }
    if (const auto text = value("preset")) {
        o.preset = presetNamed(*text);
    }
    o.mono = set("mono");
    if (set("exact")) {
        o.noiseAware = false;
    } else if (set("noise-aware")) {
        o.noiseAware = true;
    }
    o.wavSidecar = set("wav-sidecar");
    if (const auto text = value("output")) {
        o.output = fs::path(*text);
    }
    if (const auto text = value("output-dir")) {
        o.outputDir = fs::path(*text);
    }
    o.json = set("json");
    if (const auto text = value("plot")) {
        o.plot = fs::path(*text);
    }
    if (const auto text = value("plot-dir")) {
        o.plotDir = fs::path(*text);
    }
    o.jobs = defaultJobs;
    if (const auto text = value("jobs")) {
        o.jobs = static_cast<int>(number("--jobs", *text, 1, maxJobs));
        if (std::to_string(o.jobs) != (text->front() == '+' ? text->substr(1) : *text)) {
            throw UsageError{"--jobs needs a whole number, not \"" + *text + "\""};
        }
    }
    o.recursive = set("recursive");
    if (const auto text = value("input-list")) {
        o.inputList = fs::path(*text);
    }
    o.nulSeparated = set("0");
    o.includeLeveled = set("include-leveled");
    o.force = set("force");
    o.skipExisting = set("skip-existing");
    o.dryRun = set("dry-run");
    o.quiet = set("quiet");
    o.verbose = set("verbose");

    if (o.command == "presets") {
        if (!o.inputs.empty() || !parser.optionNames().isEmpty()) {
            throw UsageError{"presets takes no files or options"};
        }
        return o;
    }
    if (o.command == "measure") {
        for (const OptionSpec& spec : specs) {
            const char* name = spec.longName != nullptr ? spec.longName : spec.shortName;
            if (spec.levelOnly && set(name)) {
                throw UsageError{"measure takes no " + displayName(spec).toStdString() +
                                 " (see ostrand-cli help measure)"};
            }
        }
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
    if (set("exact") && set("noise-aware")) {
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
    if (topic.empty()) {
        return generalHelp;
    }
    if (topic == "level") {
        return levelHelp;
    }
    if (topic == "measure") {
        return measureHelp;
    }
    if (topic == "presets") {
        return presetsHelp;
    }
    throw UsageError{"no help for \"" + topic + "\" (commands: level, measure, presets)"};
}

std::string presetsText() {
    std::string text;
    for (const LoudnessPreset& preset : LoudnessPreset::all()) {
        char line[160];
        std::snprintf(line, sizeof line, "%-24s %6.1f LUFS  %5.1f dBTP\n",
                      preset.name.toStdString().c_str(), preset.loudness, preset.ceiling);
        text += line;
    }
    return text;
}

} // namespace ostrand
