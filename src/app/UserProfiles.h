#pragma once

#include "media/DeliveryProfile.h"

#include <filesystem>
#include <string>
#include <vector>

// The delivery profiles a user can choose: the built-in ones and those of
// the user's own profiles file.
namespace ostrand::UserProfiles {

// profiles.ini in Ostrand's folder of the user's configuration
// ($XDG_CONFIG_HOME/Ostrand, else ~/.config/Ostrand), beside the settings.
std::filesystem::path location();

struct Profiles {
    std::vector<DeliveryProfile> all; // the built-in ones first
    // "FILE:LINE: what is wrong", one a mistake; a missing file is none.
    std::vector<std::string> problems;
};

// Reads `file` (the user's file by default) after the built-in profiles.
// Any thread.
Profiles load(const std::filesystem::path& file = location());

} // namespace ostrand::UserProfiles
