#pragma once

#include "media/DeliveryProfile.h"
#include "media/ProfileCheck.h"

#include <QJsonObject>
#include <QString>

#include <span>
#include <string>
#include <vector>

// What "ostrand-cli profiles" and "ostrand-cli check" print.
namespace ostrand::CliProfiles {

// Each profile: its name (and the other names it answers to), a line per
// criterion or rule, and where its figures come from.
std::string listing(std::span<const DeliveryProfile> profiles);

// A checked file: a line saying whether it meets the profile, then a line
// per criterion with what is required, what was measured, and the verdict.
std::string checkText(const std::string& source, const DeliveryProfile& profile,
                      const std::vector<ProfileCheck::Result>& results);

// One line on a leveled file: "meets Apple Podcasts", or "does not meet
// EBU R128: " and each criterion it failed.
std::string verdictLine(const DeliveryProfile& profile,
                        const std::vector<ProfileCheck::Result>& results);

// The same as one JSON object: "source" is for the caller to set.
QJsonObject checkJson(const DeliveryProfile& profile,
                      const std::vector<ProfileCheck::Result>& results);

} // namespace ostrand::CliProfiles
