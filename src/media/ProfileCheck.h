#pragma once

#include "DeliveryProfile.h"
#include "LevelingEngine.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Judges a file's measurement against a delivery profile, one criterion at a
// time, and words the result. Pure functions.
namespace ostrand::ProfileCheck {

// What a criterion is about.
enum class Quantity {
    integratedLoudness,
    speechLoudness,
    truePeak,
    samplePeak,
    loudnessRange,
    rms,
    noiseFloor,
    headRoomTone,
    tailRoomTone,
    duration,
    sampleRate,
    codec,
    bitRate,
};

// One thing a profile asks: a figure within limits, around a target where
// it has one. A criterion without limits is only reported.
struct Criterion {
    Quantity quantity = Quantity::integratedLoudness;
    Limits limits;
    std::optional<double> target;
    std::string text{}; // the codec asked for, which is a name, not a figure
};

// The criteria of a profile in the order they are shown.
std::vector<Criterion> criteria(const DeliveryProfile& profile);

enum class Verdict { pass, fail, notMeasurable, reported };

struct Result {
    Criterion criterion;
    std::optional<double> measured; // in the quantity's unit; empty when not measurable
    std::string measuredText;       // the codec found
    Verdict verdict = Verdict::notMeasurable;
    // Distance to the nearest limit in the quantity's unit: positive inside,
    // negative outside; 0 when not measurable or only reported. Figures are
    // judged as they are shown, rounded to a tenth (the sample rate to 1 Hz).
    double margin = 0.0;
    std::string why; // why it could not be measured
};

// A figure shorter files cannot have: the loudness range needs one
// short-term window.
inline constexpr double loudnessRangeSeconds = 3.0;

std::vector<Result> check(const DeliveryProfile& profile,
                          const LevelingEngine::Measurement& measurement);

// Whether every criterion with limits passed (a figure that could not be
// measured did not).
bool passed(const std::vector<Result>& results);

// --- Words --------------------------------------------------------------------

// "integratedLoudness", as JSON names the quantity.
std::string_view key(Quantity quantity);
// "integrated loudness", as the text names it.
std::string_view label(Quantity quantity);
// "LUFS"; and the unit of a difference, "LU".
std::string_view unit(Quantity quantity);
std::string_view differenceUnit(Quantity quantity);
// "pass", "fail", "not measurable", "reported".
std::string_view verdictText(Verdict verdict);
// "notMeasurable", as JSON names it.
std::string_view verdictKey(Verdict verdict);

// "-16.0 ± 1.0 LUFS", "at most -1.0 dBTP", "4.0 to 18.0 LU", "reported".
std::string requiredText(const Criterion& criterion);
// "-16.3 LUFS".
std::string valueText(Quantity quantity, double value);
// What was measured as the text shows it: valueText, the codec's name, or
// "-" when nothing was.
std::string measuredText(const Result& result);
// "0.7 LU to spare", "1.2 dB too high"; empty when there is no margin.
std::string marginText(const Result& result);

// The profile's criteria and rules in a line each, for a listing.
std::vector<std::string> describe(const DeliveryProfile& profile);

} // namespace ostrand::ProfileCheck
