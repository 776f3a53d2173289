#include "CliProfiles.h"

#include "CliConsole.h"

#include <QJsonArray>
#include <QJsonValue>

#include <algorithm>
#include <cmath>

namespace ostrand::CliProfiles {

namespace {

using ProfileCheck::Result;
using ProfileCheck::Verdict;

// Columns of a criterion line: the label, the requirement, the measurement.
constexpr std::size_t labelColumns = 22;
constexpr std::size_t requiredColumns = 22;
constexpr std::size_t measuredColumns = 14;

// `text` followed by spaces up to `columns` characters (UTF-8) and one more.
std::string padded(std::string text, std::size_t columns) {
    const auto characters =
        static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
            return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
        }));
    text.append(std::max(columns, characters + 1) - characters, ' ');
    return text;
}

QString text(std::string_view words) {
    return QString::fromUtf8(words.data(), static_cast<qsizetype>(words.size()));
}

QJsonValue number(const std::optional<double>& value) {
    return value && std::isfinite(*value) ? QJsonValue(*value) : QJsonValue(QJsonValue::Null);
}

} // namespace

std::string listing(std::span<const DeliveryProfile> profiles) {
    std::string text;
    for (const DeliveryProfile& profile : profiles) {
        text += profile.name;
        for (std::size_t i = 0; i < profile.aliases.size(); ++i) {
            text += (i == 0 ? ", also \"" : ", \"") + profile.aliases[i] + "\"";
        }
        text += profile.userDefined ? " (your own)\n" : "\n";
        for (const std::string& line : ProfileCheck::describe(profile)) {
            text += "  " + line + '\n';
        }
        if (!profile.source.empty()) {
            text += "  from " + profile.source + '\n';
        }
    }
    return text;
}

std::string checkText(const std::string& source, const DeliveryProfile& profile,
                      const std::vector<Result>& results) {
    std::string text = source + (ProfileCheck::passed(results) ? ": meets " : ": does not meet ") +
                       profile.name + '\n';
    for (const Result& result : results) {
        const ProfileCheck::Quantity quantity = result.criterion.quantity;
        std::string line = "  " + padded(std::string(ProfileCheck::label(quantity)), labelColumns) +
                           padded(ProfileCheck::requiredText(result.criterion), requiredColumns);
        line += padded(ProfileCheck::measuredText(result), measuredColumns);
        if (result.verdict != Verdict::reported) {
            line += ProfileCheck::verdictText(result.verdict);
        }
        const std::string margin = ProfileCheck::marginText(result);
        if (!margin.empty()) {
            line += ", " + margin;
        }
        if (!result.why.empty()) {
            line += " (" + result.why + ")";
        }
        while (!line.empty() && line.back() == ' ') {
            line.pop_back();
        }
        text += line + '\n';
    }
    return text;
}

std::string verdictLine(const DeliveryProfile& profile, const std::vector<Result>& results) {
    if (ProfileCheck::passed(results)) {
        return "meets " + profile.name;
    }
    std::string line = "does not meet " + profile.name + ":";
    for (const Result& result : results) {
        const ProfileCheck::Quantity quantity = result.criterion.quantity;
        if (result.verdict == Verdict::fail) {
            line += " " + std::string(ProfileCheck::label(quantity)) + " " +
                    ProfileCheck::measuredText(result) +
                    (result.measuredText.empty() ? ", " + ProfileCheck::marginText(result) : "") +
                    ";";
        } else if (result.verdict == Verdict::notMeasurable) {
            line += " " + std::string(ProfileCheck::label(quantity)) + " not measurable (" +
                    result.why + ");";
        }
    }
    line.pop_back();
    return line;
}

QJsonObject checkJson(const DeliveryProfile& profile, const std::vector<Result>& results) {
    QJsonArray criteria;
    for (const Result& result : results) {
        const ProfileCheck::Criterion& c = result.criterion;
        const bool margined = result.verdict == Verdict::pass || result.verdict == Verdict::fail;
        QJsonObject criterion{
            {"criterion", text(ProfileCheck::key(c.quantity))},
            {"unit", text(ProfileCheck::unit(c.quantity))},
            {"required", jsonText(ProfileCheck::requiredText(c))},
            {"min", number(c.limits.min)},
            {"max", number(c.limits.max)},
            {"measured", result.measuredText.empty() ? number(result.measured)
                                                     : QJsonValue(jsonText(result.measuredText))},
            {"result", text(ProfileCheck::verdictKey(result.verdict))},
            {"margin", margined ? number(result.margin) : QJsonValue(QJsonValue::Null)},
        };
        if (c.target) {
            criterion["target"] = *c.target;
        }
        if (!result.why.empty()) {
            criterion["why"] = jsonText(result.why);
        }
        criteria.append(criterion);
    }
    return QJsonObject{{"profile", jsonText(profile.name)},
                       {"passed", ProfileCheck::passed(results)},
                       {"criteria", criteria}};
}

} // namespace ostrand::CliProfiles
