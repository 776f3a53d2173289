#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ostrand {

// Which loudness a profile's target applies to: the integrated loudness of
// everything, or the loudness of the speech alone (SpeechGate).
enum class LoudnessBasis { programme, speech };

// The allowed values of one figure; an end left empty is open.
struct Limits {
    std::optional<double> min{};
    std::optional<double> max{};

    bool any() const noexcept { return min || max; }
    friend bool operator==(const Limits&, const Limits&) = default;
};

// What a delivery standard asks of a file: a row of the built-in table or a
// section of the user's profiles file, with the same fields. A figure whose
// limit is left empty is not checked.
struct DeliveryProfile {
    std::string name{};
    // Other names it answers to, the earlier preset names among them.
    std::vector<std::string> aliases{};
    std::string source{};           // the public document its figures come from
    std::optional<double> target{}; // LUFS, of `measuredOn`
    double tolerance = 0.0;         // LU either side of the target
    LoudnessBasis measuredOn = LoudnessBasis::programme;
    std::optional<double> truePeak{};   // dBTP, the highest allowed
    std::optional<double> samplePeak{}; // dBFS, the highest allowed
    Limits loudnessRange{};             // LU
    bool reportsLoudnessRange = false;  // shown even when not limited
    Limits rms{};                       // dBFS
    std::optional<double> noiseFloor{}; // dBFS, the highest allowed
    std::optional<double> maxMinutes{}; // running time
    std::optional<double> sampleRate{}; // Hz, exactly
    Limits headRoomTone{};              // seconds of room tone before the first words
    Limits tailRoomTone{};              // seconds after the last
    // The audio format a delivered file has: the codec and the bit rate are
    // checked; a constant bit rate is a rule for leveled files only.
    std::string codec{};             // FFmpeg's name, e.g. "mp3"
    std::optional<double> bitRate{}; // kbit/s, at least
    bool constantBitRate = false;

    bool userDefined = false;

    friend bool operator==(const DeliveryProfile&, const DeliveryProfile&) = default;
};

// The built-in profiles, in the order they are listed.
const std::vector<DeliveryProfile>& builtInProfiles();

// A name as names are compared: its letters and digits, in lower case
// ("YouTube / Spotify" is "youtubespotify").
std::string comparableName(std::string_view name);

// The profile `name` means: the one whose name or alias it is, else the one
// whose name contains it. Null when none or several do.
const DeliveryProfile* findProfile(std::span<const DeliveryProfile> profiles,
                                   std::string_view name);

// A mistake in a profiles file: the line it is on, and what is wrong.
struct ProfileProblem {
    int line = 0;
    std::string message;
};

struct ParsedProfiles {
    std::vector<DeliveryProfile> profiles;
    std::vector<ProfileProblem> problems;
};

// Reads a profiles file: "[Name]" starts a profile, "field = value" lines
// give its fields (profileFields()), "#" starts a comment. A profile with an
// unknown field, a value of the wrong kind, an impossible value or a name
// that one of `taken` or an earlier profile already answers to is left out
// whole, and each of its mistakes is reported with its line.
ParsedProfiles parseProfiles(std::string_view text, std::span<const DeliveryProfile> taken);

// The fields of a profile as a profiles file names them, with a line on each.
struct ProfileFieldHelp {
    std::string_view key;
    std::string_view help;
};
std::vector<ProfileFieldHelp> profileFields();

} // namespace ostrand
