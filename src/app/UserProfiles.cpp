#include "UserProfiles.h"

#include <QByteArray>
#include <QFile>
#include <QStandardPaths>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace ostrand::UserProfiles {

std::filesystem::path location() {
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    return std::filesystem::path(QFile::encodeName(folder).toStdString()) / "Ostrand" /
           "profiles.ini";
}

Profiles load(const std::filesystem::path& file) {
    Profiles profiles;
    profiles.all = builtInProfiles();
    std::error_code error;
    if (!std::filesystem::exists(file, error)) {
        return profiles;
    }
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in || !text) {
        profiles.problems.push_back(file.string() + ": cannot be read: " + std::strerror(errno));
        return profiles;
    }
    const ParsedProfiles parsed = parseProfiles(text.str(), profiles.all);
    profiles.all.insert(profiles.all.end(), parsed.profiles.begin(), parsed.profiles.end());
    for (const ProfileProblem& problem : parsed.problems) {
        profiles.problems.push_back(file.string() + ":" + std::to_string(problem.line) + ": " +
                                    problem.message);
    }
    return profiles;
}

} // namespace ostrand::UserProfiles
