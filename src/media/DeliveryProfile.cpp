#include "DeliveryProfile.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <map>
#include <variant>

namespace ostrand {

namespace {

// --- Reading a profiles file ----------------------------------------------------

std::string_view trimmed(std::string_view text) {
    const auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    while (!text.empty() && blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string figure(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

// A unit a number may be written with, and what it multiplies the number by.
struct Unit {
    std::string_view spelling;
    double factor = 1.0;
};

struct NumberRule {
    double lowest;
    double highest;
    std::vector<Unit> units; // the first is the field's own
};

using Member = std::variant<std::optional<double> DeliveryProfile::*, double DeliveryProfile::*,
                            Limits DeliveryProfile::*, std::string DeliveryProfile::*,
                            std::vector<std::string> DeliveryProfile::*,
                            LoudnessBasis DeliveryProfile::*, bool DeliveryProfile::*>;

struct Field {
    std::string_view key;
    Member member;
    NumberRule rule;
    std::string_view help;
};

const std::vector<Unit> lufs{{"LUFS"}, {"LKFS"}};
const std::vector<Unit> lu{{"LU"}};

// Every field a profiles file may set, once. The ranges keep out values no
// standard could mean.
const Field fields[] = {
    {"target", &DeliveryProfile::target, {-70.0, 0.0, lufs}, "loudness to reach, LUFS"},
    {"tolerance", &DeliveryProfile::tolerance, {0.0, 20.0, lu}, "LU either side of the target"},
    {"measured-on", &DeliveryProfile::measuredOn, {}, "all (the default) or speech"},
    {"true-peak", &DeliveryProfile::truePeak, {-30.0, 0.0, {{"dBTP"}}}, "highest true peak, dBTP"},
    {"sample-peak",
     &DeliveryProfile::samplePeak,
     {-30.0, 0.0, {{"dBFS"}}},
     "highest sample peak, dBFS"},
    {"loudness-range",
     &DeliveryProfile::loudnessRange,
     {0.0, 50.0, lu},
     "\"A to B\", \"at least A\" or \"at most B\", LU"},
    {"report-loudness-range",
     &DeliveryProfile::reportsLoudnessRange,
     {},
     "yes: show the loudness range"},
    {"rms", &DeliveryProfile::rms, {-70.0, 0.0, {{"dBFS"}}}, "RMS level of the whole file, dBFS"},
    {"noise-floor",
     &DeliveryProfile::noiseFloor,
     {-150.0, 0.0, {{"dBFS"}}},
     "highest RMS of the quietest 500 ms, dBFS"},
    {"max-minutes",
     &DeliveryProfile::maxMinutes,
     {0.0, 100000.0, {{"min"}}},
     "longest running time, minutes"},
    {"sample-rate",
     &DeliveryProfile::sampleRate,
     {8000.0, 768000.0, {{"Hz"}, {"kHz", 1000.0}}},
     "sample rate, Hz"},
    {"codec", &DeliveryProfile::codec, {}, "audio codec of a leveled file, e.g. mp3"},
    {"bit-rate",
     &DeliveryProfile::bitRate,
     {8.0, 3000.0, {{"kb/s"}, {"kbit/s"}, {"kbps"}}},
     "lowest bit rate of a leveled file, kb/s"},
    {"constant-bit-rate",
     &DeliveryProfile::constantBitRate,
     {},
     "yes: a leveled file's bit rate is constant"},
    {"head-room-tone",
     &DeliveryProfile::headRoomTone,
     {0.0, 60.0, {{"s"}}},
     "seconds of room tone before the first words"},
    {"tail-room-tone",
     &DeliveryProfile::tailRoomTone,
     {0.0, 60.0, {{"s"}}},
     "seconds of room tone after the last words"},
    {"aliases", &DeliveryProfile::aliases, {}, "other names, separated by commas"},
    {"source", &DeliveryProfile::source, {}, "where the figures come from"},
};

// A value that does not fit its field; the message says why.
struct Mistake {
    std::string message;
};

double number(std::string_view key, std::string_view text, const NumberRule& rule) {
    std::string spelled(trimmed(text));
    // A typographic minus, as pasted from a broadcaster's document.
    if (spelled.rfind("\u2212", 0) == 0) {
        spelled.replace(0, 3, "-");
    }
    std::string_view rest = spelled;
    if (!rest.empty() && rest.front() == '+') {
        rest.remove_prefix(1);
    }
    double value = 0.0;
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
    if (rest.empty() || error != std::errc() || !std::isfinite(value)) {
        throw Mistake{std::string(key) + " needs a number, not \"" + std::string(text) + "\""};
    }
    const std::string unit = lower(trimmed(std::string_view(end, rest.data() + rest.size())));
    if (!unit.empty()) {
        const auto found = std::find_if(rule.units.begin(), rule.units.end(),
                                        [&](const Unit& u) { return lower(u.spelling) == unit; });
        if (found == rule.units.end()) {
            throw Mistake{std::string(key) + " is in " + std::string(rule.units.front().spelling) +
                          ", not \"" + std::string(trimmed(std::string_view(end, rest.end()))) +
                          "\""};
        }
        value *= found->factor;
    }
    if (value < rule.lowest || value > rule.highest) {
        throw Mistake{std::string(key) + " must lie between " + figure(rule.lowest) + " and " +
                      figure(rule.highest) + " " + std::string(rule.units.front().spelling)};
    }
    return value;
}

Limits limits(std::string_view key, std::string_view text, const NumberRule& rule) {
    const std::string words = lower(text);
    Limits out;
    if (words.rfind("at least ", 0) == 0) {
        out.min = number(key, text.substr(9), rule);
    } else if (words.rfind("at most ", 0) == 0) {
        out.max = number(key, text.substr(8), rule);
    } else if (const auto to = words.find(" to "); to != std::string::npos) {
        out.min = number(key, text.substr(0, to), rule);
        out.max = number(key, text.substr(to + 4), rule);
        if (*out.min > *out.max) {
            throw Mistake{std::string(key) + " runs from its lower end to its higher one, not \"" +
                          std::string(text) + "\""};
        }
    } else {
        throw Mistake{std::string(key) +
                      " needs \"A to B\", \"at least A\" or \"at most B\", not \"" +
                      std::string(text) + "\""};
    }
    return out;
}

void apply(const Field& field, std::string_view value, DeliveryProfile& profile) {
    std::visit(
        [&](auto member) {
            using Type = std::remove_reference_t<decltype(profile.*member)>;
            Type& target = profile.*member;
            if constexpr (std::is_same_v<Type, std::optional<double>> ||
                          std::is_same_v<Type, double>) {
                target = number(field.key, value, field.rule);
            } else if constexpr (std::is_same_v<Type, Limits>) {
                target = limits(field.key, value, field.rule);
            } else if constexpr (std::is_same_v<Type, LoudnessBasis>) {
                const std::string word = lower(value);
                if (word != "all" && word != "speech") {
                    throw Mistake{"measured-on is \"all\" or \"speech\", not \"" +
                                  std::string(value) + "\""};
                }
                target = word == "speech" ? LoudnessBasis::speech : LoudnessBasis::programme;
            } else if constexpr (std::is_same_v<Type, bool>) {
                const std::string word = lower(value);
                if (word != "yes" && word != "no") {
                    throw Mistake{std::string(field.key) + " is \"yes\" or \"no\", not \"" +
                                  std::string(value) + "\""};
                }
                target = word == "yes";
            } else if constexpr (std::is_same_v<Type, std::vector<std::string>>) {
                for (std::size_t at = 0; at <= value.size();) {
                    const std::size_t end = std::min(value.find(',', at), value.size());
                    const std::string_view alias = trimmed(value.substr(at, end - at));
                    if (comparableName(alias).empty()) {
                        throw Mistake{"aliases are names separated by commas, not \"" +
                                      std::string(value) + "\""};
                    }
                    target.emplace_back(alias);
                    at = end + 1;
                }
            } else {
                if (value.empty()) {
                    throw Mistake{std::string(field.key) + " needs a value"};
                }
                target = std::string(value);
            }
        },
        field.member);
}

// What a profile read from a file may still lack, said of its section.
std::optional<std::string> incomplete(const DeliveryProfile& p,
                                      const std::map<std::string, int>& given) {
    if (!p.target && (given.contains("tolerance") || given.contains("measured-on"))) {
        return given.contains("tolerance") ? "tolerance needs a target"
                                           : "measured-on needs a target";
    }
    const bool checksSomething = p.target || p.truePeak || p.samplePeak || p.loudnessRange.any() ||
                                 p.reportsLoudnessRange || p.rms.any() || p.noiseFloor ||
                                 p.maxMinutes || p.sampleRate || p.headRoomTone.any() ||
                                 p.tailRoomTone.any();
    if (!checksSomething) {
        return "the profile sets nothing to check";
    }
    return std::nullopt;
}

} // namespace

const std::vector<DeliveryProfile>& builtInProfiles() {
    // The sources are named as their publishers title them; README.md cites them.
    static const std::vector<DeliveryProfile> table = {
        {.name = "Apple Podcasts",
         .aliases = {"podcast"},
         .source = "Apple Podcasts for Creators, \"Audio requirements\"",
         .target = -16.0,
         .tolerance = 1.0,
         .truePeak = -1.0},
        {.name = "Match Corvane",
         .source = "Ostrand's preset of that name",
         .target = -15.0,
         .tolerance = 1.0,
         .truePeak = -1.0},
        {.name = "Spotify",
         .source = "Spotify for Podcasters, loudness normalization",
         .target = -14.0,
         .tolerance = 1.0,
         .truePeak = -1.0},
        {.name = "YouTube",
         .aliases = {"YouTube / Spotify", "streaming"},
         .source = "YouTube Help, loudness normalization",
         .target = -14.0,
         .tolerance = 1.0,
         .truePeak = -1.0},
        {.name = "EBU R128",
         .aliases = {"Broadcast (EBU R128)", "broadcast"},
         .source = "EBU R 128 (2020), Loudness normalisation and permitted maximum level",
         .target = -23.0,
         .tolerance = 0.5,
         .truePeak = -1.0,
         .reportsLoudnessRange = true},
        {.name = "ATSC A/85",
         .source = "ATSC A/85:2013, Techniques for Establishing and Maintaining Audio Loudness",
         .target = -24.0,
         .tolerance = 2.0,
         .measuredOn = LoudnessBasis::speech,
         .truePeak = -2.0},
        {.name = "Streaming drama (speech-gated)",
         .aliases = {"drama"},
         .source = "Netflix Sound Mix Specifications & Best Practices v1.4",
         .target = -27.0,
         .tolerance = 2.0,
         .measuredOn = LoudnessBasis::speech,
         .truePeak = -2.0,
         .loudnessRange = {4.0, 18.0}},
        {.name = "Audiobook (ACX-style)",
         .aliases = {"audiobook", "ACX"},
         .source = "ACX Audio Submission Requirements",
         .samplePeak = -3.0,
         .rms = {-23.0, -18.0},
         .noiseFloor = -60.0,
         .maxMinutes = 120.0,
         .sampleRate = 44100.0,
         .headRoomTone = {0.5, 1.0},
         .tailRoomTone = {1.0, 5.0},
         .codec = "mp3",
         .bitRate = 192.0,
         .constantBitRate = true},
    };
    return table;
}

std::string comparableName(std::string_view name) {
    std::string out;
    for (const char c : name) {
        if (std::isalnum(static_cast<unsigned char>(c))) {
            out.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
        }
    }
    return out;
}

const DeliveryProfile* findProfile(std::span<const DeliveryProfile> profiles,
                                   std::string_view name) {
    const std::string wanted = comparableName(name);
    if (wanted.empty()) {
        return nullptr;
    }
    for (const DeliveryProfile& profile : profiles) {
        if (comparableName(profile.name) == wanted ||
            std::any_of(
                profile.aliases.begin(), profile.aliases.end(),
                [&](const std::string& alias) { return comparableName(alias) == wanted; })) {
            return &profile;
        }
    }
    const DeliveryProfile* found = nullptr;
    for (const DeliveryProfile& profile : profiles) {
        if (comparableName(profile.name).find(wanted) != std::string::npos) {
            if (found != nullptr) {
                return nullptr;
            }
            found = &profile;
        }
    }
    return found;
}

ParsedProfiles parseProfiles(std::string_view text, std::span<const DeliveryProfile> taken) {
    ParsedProfiles out;
    // Names already answered to, and by which profile.
    std::map<std::string, std::string> owners;
    const auto claim = [&owners](const DeliveryProfile& profile) {
        owners.emplace(comparableName(profile.name), profile.name);
        for (const std::string& alias : profile.aliases) {
            owners.emplace(comparableName(alias), profile.name);
        }
    };
    for (const DeliveryProfile& profile : taken) {
        claim(profile);
    }

    struct Section {
        DeliveryProfile profile;
        int line = 0;
        std::map<std::string, int> given; // field, line
        bool faulty = false;
    };
    std::optional<Section> section;
    const auto fault = [&](int line, const std::string& message) {
        out.problems.push_back({line, section ? message + " (the profile \"" +
                                                    section->profile.name + "\" is left out)"
                                              : message});
        if (section) {
            section->faulty = true;
        }
    };
    const auto finish = [&] {
        // A profile already left out needs no more reasons.
        if (!section || section->faulty) {
            section.reset();
            return;
        }
        if (const auto missing = incomplete(section->profile, section->given)) {
            fault(section->line, *missing);
        }
        std::vector<std::string> names{section->profile.name};
        names.insert(names.end(), section->profile.aliases.begin(), section->profile.aliases.end());
        for (const std::string& name : names) {
            if (const auto owner = owners.find(comparableName(name)); owner != owners.end()) {
                fault(section->line, "the name \"" + name + "\" is taken by the profile \"" +
                                         owner->second + "\"");
            }
        }
        if (!section->faulty) {
            section->profile.userDefined = true;
            claim(section->profile);
            out.profiles.push_back(std::move(section->profile));
        }
        section.reset();
    };

    int lineNumber = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        std::string_view line = text.substr(at, end - at);
        at = end + 1;
        ++lineNumber;
        line = trimmed(line.substr(0, line.find('#')));
        if (line.empty()) {
            continue;
        }
        if (line.front() == '[') {
            finish();
            const std::string_view name =
                trimmed(line.substr(1, line.size() - 1 - (line.back() == ']')));
            section.emplace();
            section->profile.name = std::string(name);
            section->line = lineNumber;
            if (line.back() != ']' || comparableName(name).empty()) {
                fault(lineNumber, "a profile starts with its name in brackets: \"[My show]\"");
            }
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) {
            fault(lineNumber, "expected \"field = value\", not \"" + std::string(line) + "\"");
            continue;
        }
        const std::string key = lower(trimmed(line.substr(0, equals)));
        const std::string_view value = trimmed(line.substr(equals + 1));
        if (!section) {
            fault(lineNumber, "\"" + key + "\" comes before the first [profile name]; ignored");
            continue;
        }
        const auto field = std::find_if(std::begin(fields), std::end(fields),
                                        [&](const Field& f) { return f.key == key; });
        if (field == std::end(fields)) {
            fault(lineNumber, "unknown field \"" + key + "\"");
            continue;
        }
        if (!section->given.emplace(key, lineNumber).second) {
            fault(lineNumber, key + " is given twice");
            continue;
        }
        try {
            apply(*field, value, section->profile);
        } catch (const Mistake& mistake) {
            fault(lineNumber, mistake.message);
        }
    }
    finish();
    return out;
}

std::vector<ProfileFieldHelp> profileFields() {
    std::vector<ProfileFieldHelp> help;
    for (const Field& field : fields) {
        help.push_back({field.key, field.help});
    }
    return help;
}

} // namespace ostrand
