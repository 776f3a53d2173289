#include "ProfileCheck.h"

#include "dsp/Loudness.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace ostrand::ProfileCheck {

namespace {

struct QuantityWords {
    Quantity quantity;
    std::string_view key;
    std::string_view label;
    std::string_view unit;
    std::string_view differenceUnit;
    std::string_view tooHigh;
    std::string_view tooLow;
    int decimals;
};

constexpr QuantityWords words[] = {
    {Quantity::integratedLoudness, "integratedLoudness", "integrated loudness", "LUFS", "LU",
     "too loud", "too quiet", 1},
    {Quantity::speechLoudness, "speechLoudness", "speech loudness", "LUFS", "LU", "too loud",
     "too quiet", 1},
    {Quantity::truePeak, "truePeak", "true peak", "dBTP", "dB", "too high", "too low", 1},
    {Quantity::samplePeak, "samplePeak", "sample peak", "dBFS", "dB", "too high", "too low", 1},
    {Quantity::loudnessRange, "loudnessRange", "loudness range", "LU", "LU", "too wide",
     "too narrow", 1},
    {Quantity::rms, "rms", "RMS level", "dBFS", "dB", "too loud", "too quiet", 1},
    {Quantity::noiseFloor, "noiseFloor", "noise floor", "dBFS", "dB", "too high", "too low", 1},
    {Quantity::headRoomTone, "headRoomTone", "room tone at the head", "s", "s", "too long",
     "too short", 1},
    {Quantity::tailRoomTone, "tailRoomTone", "room tone at the tail", "s", "s", "too long",
     "too short", 1},
    {Quantity::duration, "duration", "running time", "min", "min", "too long", "too short", 1},
    {Quantity::sampleRate, "sampleRate", "sample rate", "Hz", "Hz", "too high", "too low", 0},
    {Quantity::codec, "codec", "codec", "", "", "", "", 0},
    {Quantity::bitRate, "bitRate", "bit rate", "kb/s", "kb/s", "too high", "too low", 0},
};

const QuantityWords& wordsOf(Quantity quantity) {
    return *std::find_if(std::begin(words), std::end(words),
                         [quantity](const QuantityWords& w) { return w.quantity == quantity; });
}

std::string formatted(double value, int decimals, std::string_view unitText) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return std::string(text) + " " + std::string(unitText);
}

std::string limitsText(const Limits& limits, int decimals, std::string_view unitText) {
    if (limits.min && limits.max) {
        if (*limits.min == *limits.max) {
            return formatted(*limits.min, decimals, unitText);
        }
        char text[48];
        std::snprintf(text, sizeof text, "%.*f to ", decimals, *limits.min);
        return text + formatted(*limits.max, decimals, unitText);
    }
    if (limits.max) {
        return "at most " + formatted(*limits.max, decimals, unitText);
    }
    if (limits.min) {
        return "at least " + formatted(*limits.min, decimals, unitText);
    }
    return "reported";
}

struct Reading {
    std::optional<double> value;
    std::string why;
};

Reading read(Quantity quantity, const LevelingEngine::Measurement& m) {
    const auto audible = [](double lufs, const char* why) {
        return Loudness::isSilent(lufs) ? Reading{std::nullopt, why} : Reading{lufs, {}};
    };
    const auto known = [](double value, const char* why) {
        return std::isnan(value) ? Reading{std::nullopt, why} : Reading{value, {}};
    };
    const char* noLoudness =
        m.duration < Loudness::shortestMeasurableSeconds ? "too short to measure" : "silent";
    switch (quantity) {
    case Quantity::integratedLoudness:
        return audible(m.integratedLoudness, noLoudness);
    case Quantity::speechLoudness:
        return audible(m.speechLoudness, "no speech found");
    case Quantity::truePeak:
        return known(m.truePeak, "no samples");
    case Quantity::samplePeak:
        return known(m.samplePeak, "no samples");
    case Quantity::loudnessRange:
        if (!(m.duration >= loudnessRangeSeconds)) {
            return {std::nullopt, "shorter than 3 s"};
        }
        return Loudness::isSilent(m.integratedLoudness) ? Reading{std::nullopt, noLoudness}
                                                        : Reading{m.loudnessRange, {}};
    case Quantity::rms:
        return known(m.rms, "shorter than 10 ms");
    case Quantity::noiseFloor:
        return known(m.noiseFloor, "shorter than 500 ms");
    case Quantity::headRoomTone:
        return known(m.headRoomTone, "no samples");
    case Quantity::tailRoomTone:
        return known(m.tailRoomTone, "no samples");
    case Quantity::duration:
        return m.duration > 0.0 ? Reading{m.duration / 60.0, {}}
                                : Reading{std::nullopt, "running time unknown"};
    case Quantity::sampleRate:
        return m.sampleRate > 0.0 ? Reading{m.sampleRate, {}}
                                  : Reading{std::nullopt, "sample rate unknown"};
    case Quantity::bitRate:
        return m.bitRate > 0.0 ? Reading{m.bitRate / 1000.0, {}}
                               : Reading{std::nullopt, "the file does not state it"};
    case Quantity::codec:
        break;
    }
    return {};
}

} // namespace

std::vector<Criterion> criteria(const DeliveryProfile& p) {
    std::vector<Criterion> out;
    if (p.target) {
        out.push_back({p.measuredOn == LoudnessBasis::speech ? Quantity::speechLoudness
                                                             : Quantity::integratedLoudness,
                       {*p.target - p.tolerance, *p.target + p.tolerance},
                       p.target});
    }
    const auto atMost = [&out](Quantity quantity, const std::optional<double>& limit) {
        if (limit) {
            out.push_back({quantity, {std::nullopt, limit}, std::nullopt});
        }
    };
    atMost(Quantity::truePeak, p.truePeak);
    atMost(Quantity::samplePeak, p.samplePeak);
    if (p.loudnessRange.any() || p.reportsLoudnessRange) {
        out.push_back({Quantity::loudnessRange, p.loudnessRange, std::nullopt});
    }
    if (p.rms.any()) {
        out.push_back({Quantity::rms, p.rms, std::nullopt});
    }
    atMost(Quantity::noiseFloor, p.noiseFloor);
    for (const auto& [quantity, limits] : {std::pair{Quantity::headRoomTone, p.headRoomTone},
                                           std::pair{Quantity::tailRoomTone, p.tailRoomTone}}) {
        if (limits.any()) {
            out.push_back({quantity, limits, std::nullopt});
        }
    }
    atMost(Quantity::duration, p.maxMinutes);
    if (p.sampleRate) {
        out.push_back({Quantity::sampleRate, {p.sampleRate, p.sampleRate}, std::nullopt});
    }
    if (!p.codec.empty()) {
        out.push_back({Quantity::codec, {}, std::nullopt, p.codec});
    }
    if (p.bitRate) {
        out.push_back({Quantity::bitRate, {p.bitRate, std::nullopt}, std::nullopt});
    }
    return out;
}

std::vector<Result> check(const DeliveryProfile& profile,
                          const LevelingEngine::Measurement& measurement) {
    std::vector<Result> results;
    for (const Criterion& criterion : criteria(profile)) {
        Result result;
        result.criterion = criterion;
        if (criterion.quantity == Quantity::codec) {
            result.measuredText = measurement.codec;
            result.verdict = measurement.codec.empty()             ? Verdict::notMeasurable
                             : measurement.codec == criterion.text ? Verdict::pass
                                                                   : Verdict::fail;
            result.why = measurement.codec.empty() ? "unknown" : "";
            results.push_back(std::move(result));
            continue;
        }
        Reading reading = read(criterion.quantity, measurement);
        result.measured = reading.value;
        if (!reading.value) {
            result.verdict = Verdict::notMeasurable;
            result.why = std::move(reading.why);
        } else if (!criterion.limits.any()) {
            result.verdict = Verdict::reported;
        } else {
            constexpr double open = std::numeric_limits<double>::infinity();
            // Judged as shown: a difference a figure rounded to its last
            // digit cannot tell (the leveler's overCeilingDb) is no fault.
            const double scale = std::pow(10.0, wordsOf(criterion.quantity).decimals);
            const double value = std::round(*reading.value * scale) / scale;
            const Limits& limits = criterion.limits;
            const double margin = std::min(limits.min ? value - *limits.min : open,
                                           limits.max ? *limits.max - value : open);
            result.margin = std::round(margin * scale) / scale;
            result.verdict = result.margin >= 0.0 ? Verdict::pass : Verdict::fail;
        }
        results.push_back(std::move(result));
    }
    return results;
}

bool passed(const std::vector<Result>& results) {
    return std::all_of(results.begin(), results.end(), [](const Result& r) {
        return r.verdict == Verdict::pass || r.verdict == Verdict::reported;
    });
}

std::string_view key(Quantity quantity) {
    return wordsOf(quantity).key;
}

std::string_view label(Quantity quantity) {
    return wordsOf(quantity).label;
}

std::string_view unit(Quantity quantity) {
    return wordsOf(quantity).unit;
}

std::string_view differenceUnit(Quantity quantity) {
    return wordsOf(quantity).differenceUnit;
}

std::string_view verdictText(Verdict verdict) {
    switch (verdict) {
    case Verdict::pass:
        return "pass";
    case Verdict::fail:
        return "fail";
    case Verdict::reported:
        return "reported";
    case Verdict::notMeasurable:
        break;
    }
    return "not measurable";
}

std::string_view verdictKey(Verdict verdict) {
    return verdict == Verdict::notMeasurable ? "notMeasurable" : verdictText(verdict);
}

std::string requiredText(const Criterion& c) {
    if (c.quantity == Quantity::codec) {
        return c.text;
    }
    const QuantityWords& w = wordsOf(c.quantity);
    if (c.target && c.limits.max) {
        char text[96];
        std::snprintf(text, sizeof text, "%.*f \u00b1 %.*f %s", w.decimals, *c.target, w.decimals,
                      *c.limits.max - *c.target, std::string(w.unit).c_str());
        return text;
    }
    return limitsText(c.limits, w.decimals, w.unit);
}

std::string valueText(Quantity quantity, double value) {
    const QuantityWords& w = wordsOf(quantity);
    return formatted(value, w.decimals, w.unit);
}

std::string measuredText(const Result& r) {
    if (!r.measuredText.empty()) {
        return r.measuredText;
    }
    return r.measured ? valueText(r.criterion.quantity, *r.measured) : "-";
}

std::string marginText(const Result& r) {
    const Limits& limits = r.criterion.limits;
    const bool exact = limits.min && limits.max && *limits.min == *limits.max;
    if ((r.verdict != Verdict::pass && r.verdict != Verdict::fail) || !std::isfinite(r.margin) ||
        (exact && r.verdict == Verdict::pass) || r.criterion.quantity == Quantity::codec) {
        return {};
    }
    const QuantityWords& w = wordsOf(r.criterion.quantity);
    const std::string amount = formatted(std::fabs(r.margin), w.decimals, w.differenceUnit);
    if (r.verdict == Verdict::pass) {
        return amount + " to spare";
    }
    const bool high = limits.max && r.measured && *r.measured > *limits.max;
    return amount + " " + std::string(high ? w.tooHigh : w.tooLow);
}

std::vector<std::string> describe(const DeliveryProfile& p) {
    std::vector<std::string> lines;
    for (const Criterion& c : criteria(p)) {
        lines.push_back(std::string(label(c.quantity)) + " " + requiredText(c));
    }
    if (p.constantBitRate) {
        lines.emplace_back("constant bit rate (for leveled files; not measured)");
    }
    return lines;
}

} // namespace ostrand::ProfileCheck
