// The profile table, the user's profiles file and the check of a measurement.

#include "media/DeliveryProfile.h"
#include "dsp/Loudness.h"
#include "media/ProfileCheck.h"

#include "support/NamedCases.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace ostrand::test {
namespace {

struct NameCase {
    const char* name;
    const char* given;
    const char* found; // nullptr: none, or several
    double target = 0.0;
    double ceiling = 0.0;
};

class ProfileNames : public testing::TestWithParam<NameCase> {};

// The earlier presets' names and figures keep working.
TEST_P(ProfileNames, FindTheProfileMeant) {
    const NameCase& c = GetParam();
    const DeliveryProfile* profile = findProfile(builtInProfiles(), c.given);
    if (c.found == nullptr) {
        EXPECT_EQ(profile, nullptr);
        return;
    }
    ASSERT_NE(profile, nullptr);
    EXPECT_EQ(profile->name, c.found);
    EXPECT_EQ(profile->target.value_or(0.0), c.target);
    EXPECT_EQ(profile->truePeak.value_or(0.0), c.ceiling);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ProfileNames,
    testing::Values(NameCase{"PodcastPreset", "podcast", "Apple Podcasts", -16.0, -1.0},
                    NameCase{"CorvanePreset", "Match Corvane", "Match Corvane", -15.0, -1.0},
                    NameCase{"StreamingPreset", "YouTube / Spotify", "YouTube", -14.0, -1.0},
                    NameCase{"StreamingWord", "streaming", "YouTube", -14.0, -1.0},
                    NameCase{"BroadcastPreset", "Broadcast (EBU R128)", "EBU R128", -23.0, -1.0},
                    NameCase{"PartOfAName", "atsc", "ATSC A/85", -24.0, -2.0},
                    NameCase{"Ambiguous", "s", nullptr}, NameCase{"Unknown", "radio", nullptr}),
    byName);

struct FileCase {
    const char* name;
    const char* text;
    const char* accepted; // the profiles kept, '|'-separated
    int line = 0;         // of the one problem; 0: none
    const char* problem = "";
};

class ProfilesFile : public testing::TestWithParam<FileCase> {};

// A profile with a mistake is left out whole, the mistake named by its line;
// the others stay.
TEST_P(ProfilesFile, KeepsOnlyWholeProfiles) {
    const FileCase& c = GetParam();
    const ParsedProfiles parsed = parseProfiles(c.text, builtInProfiles());
    std::string accepted;
    for (const DeliveryProfile& profile : parsed.profiles) {
        accepted += (accepted.empty() ? "" : "|") + profile.name;
    }
    EXPECT_EQ(accepted, c.accepted);
    ASSERT_EQ(parsed.problems.size(), c.line == 0 ? 0u : 1u);
    if (c.line != 0) {
        EXPECT_EQ(parsed.problems[0].line, c.line);
        EXPECT_NE(parsed.problems[0].message.find(c.problem), std::string::npos)
            << parsed.problems[0].message;
    }
}

constexpr const char* everyKind = R"(# a show of our own
[Morning show]   # comment
target = -18 LKFS
tolerance = 1.5
measured-on = speech
true-peak = −1.5 dBTP
loudness-range = at most 12 LU
rms = -23 to -18 dBFS
sample-rate = 44.1 kHz
constant-bit-rate = yes
aliases = morning, am show
)";

INSTANTIATE_TEST_SUITE_P(
    Mistakes, ProfilesFile,
    testing::Values(
        FileCase{"EveryKindOfValue", everyKind, "Morning show"},
        FileCase{"UnknownField", "[A]\ntarget = -18\nloudness = -18\n", "", 3,
                 "unknown field \"loudness\""},
        FileCase{"NotANumber", "[A]\ntarget = loud\n", "", 2, "target needs a number"},
        FileCase{"WrongUnit", "[A]\ntarget = -18 dB\n", "", 2, "target is in LUFS"},
        FileCase{"Impossible", "[A]\ntrue-peak = 3\n", "", 2, "true-peak must lie between"},
        FileCase{"RangeBackwards", "[A]\nloudness-range = 18 to 4\n", "", 2, "lower end"},
        FileCase{"NotYesOrNo", "[A]\ntarget = -18\nconstant-bit-rate = 1\n", "", 3, "\"yes\""},
        FileCase{"TwiceInOneProfile", "[A]\ntarget = -18\ntarget = -17\n", "", 3, "given twice"},
        FileCase{"ToleranceWithoutTarget", "[A]\ntolerance = 1\ntrue-peak = -1\n", "", 1,
                 "tolerance needs a target"},
        FileCase{"NothingToCheck", "[A]\nsource = us\n", "", 1, "nothing to check"},
        FileCase{"NameOfABuiltIn", "[Broadcast]\ntarget = -18\n", "", 1, "taken by"},
        FileCase{"AliasOfAnEarlierOne", "[A]\ntarget=-18\n[B]\naliases = a\ntarget=-18\n", "A", 3,
                 "taken by the profile \"A\""},
        FileCase{"NextProfileStays", "[Bad]\nfoo = 1\n[Good]\ntarget = -18\n", "Good", 2,
                 "left out"},
        FileCase{"FieldBeforeAnyProfile", "target = -18\n[A]\ntarget = -18\n", "A", 1, "before"},
        FileCase{"UnclosedName", "[A\ntarget = -18\n", "", 1, "brackets"}),
    byName);

TEST(ProfilesFile, ReadsEveryKindOfValue) {
    const ParsedProfiles parsed = parseProfiles(everyKind, builtInProfiles());
    ASSERT_EQ(parsed.profiles.size(), 1u);
    DeliveryProfile expected;
    expected.name = "Morning show";
    expected.aliases = {"morning", "am show"};
    expected.target = -18.0;
    expected.tolerance = 1.5;
    expected.measuredOn = LoudnessBasis::speech;
    expected.truePeak = -1.5;
    expected.loudnessRange = {std::nullopt, 12.0};
    expected.rms = {-23.0, -18.0};
    expected.sampleRate = 44100.0;
    expected.constantBitRate = true;
    expected.userDefined = true;
    EXPECT_EQ(parsed.profiles[0], expected);
}

struct VerdictCase {
    const char* name;
    const char* profile;
    LevelingEngine::Measurement measurement;
    const char* verdicts; // per criterion, '|'-separated
    const char* firstMargin = "";
};

class ProfileVerdicts : public testing::TestWithParam<VerdictCase> {};

TEST_P(ProfileVerdicts, JudgeEachCriterion) {
    const VerdictCase& c = GetParam();
    const std::vector<ProfileCheck::Result> results =
        ProfileCheck::check(*findProfile(builtInProfiles(), c.profile), c.measurement);
    std::string verdicts;
    for (const ProfileCheck::Result& result : results) {
        verdicts +=
            (verdicts.empty() ? "" : "|") + std::string(ProfileCheck::verdictText(result.verdict));
    }
    EXPECT_EQ(verdicts, c.verdicts);
    EXPECT_EQ(ProfileCheck::marginText(results.front()), c.firstMargin);
    EXPECT_EQ(ProfileCheck::passed(results), verdicts.find("not") == std::string::npos &&
                                                 verdicts.find("fail") == std::string::npos);
}

LevelingEngine::Measurement measurement(double integrated, double speech, double truePeak,
                                        double seconds) {
    LevelingEngine::Measurement m;
    m.integratedLoudness = integrated;
    m.speechLoudness = speech;
    m.truePeak = truePeak;
    m.samplePeak = truePeak;
    m.loudnessRange = 7.0;
    m.rms = -20.0;
    m.noiseFloor = seconds < 0.5 ? std::nan("") : -61.0;
    m.headRoomTone = 0.7;
    m.tailRoomTone = seconds < 1.0 ? 0.2 : 2.0;
    m.duration = seconds;
    m.sampleRate = 48000.0;
    m.codec = "pcm_s24le";
    m.bitRate = 2304000.0;
    return m;
}

constexpr double none = Loudness::silence;

INSTANTIATE_TEST_SUITE_P(
    Table, ProfileVerdicts,
    testing::Values(
        // Judged as shown, to a tenth.
        VerdictCase{"AtTheEdgeAsShown", "EBU", measurement(-23.54, -23.0, -0.96, 60.0),
                    "pass|pass|reported", "0.0 LU to spare"},
        VerdictCase{"TooLoudAndOverTheCeiling", "podcast", measurement(-14.5, -16.0, -0.4, 60.0),
                    "fail|fail", "0.5 LU too loud"},
        VerdictCase{"MeasuredOnSpeech", "ATSC", measurement(-18.0, -25.5, -3.0, 60.0), "pass|pass",
                    "0.5 LU to spare"},
        VerdictCase{"NoSpeech", "ATSC", measurement(-18.0, none, -3.0, 60.0),
                    "not measurable|pass"},
        VerdictCase{"TooShortForTheRange", "drama", measurement(-27.0, -27.0, -3.0, 2.0),
                    "pass|pass|not measurable", "2.0 LU to spare"},
        VerdictCase{"TooShortForTheNoiseFloor", "audiobook", measurement(-20.0, -20.0, -4.0, 0.4),
                    "pass|pass|not measurable|pass|fail|pass|fail|fail|pass", "1.0 dB to spare"}),
    byName);

} // namespace
} // namespace ostrand::test
