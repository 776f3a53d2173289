#include "OutputNaming.h"

#include "media/LevelingEngine.h"

#include <algorithm>
#include <cctype>
#include <system_error>

namespace ostrand::OutputNaming {

namespace {

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool isTaken(const std::filesystem::path& candidate, bool& unknown) {
    std::error_code error;
    // symlink_status, so that a dangling link counts as taken: the writer
    // would otherwise replace it.
    const auto status = std::filesystem::symlink_status(candidate, error);
    if (error && status.type() != std::filesystem::file_type::not_found) {
        unknown = true;
        return false;
    }
    return std::filesystem::exists(status);
}

} // namespace

std::string leveledName(const std::filesystem::path& source) {
    return source.filename().stem().string() + std::string(leveledSuffix);
}

std::filesystem::path uniqueLocation(const std::filesystem::path& folder, std::string_view name,
                                     std::string_view extension) {
    const auto fileName = [&](long long number) {
        std::string result(name);
        if (number > 1) {
            result += ' ' + std::to_string(number);
        }
        if (!extension.empty()) {
            result += '.';
            result += extension;
        }
        return result;
    };
    for (long long number = 1;; ++number) {
        auto candidate = folder / fileName(number);
        bool unknown = false;
        if (!isTaken(candidate, unknown) || unknown) {
            return candidate;
        }
    }
}

std::filesystem::path leveledLocation(const std::filesystem::path& source,
                                      const std::filesystem::path& folder) {
    return uniqueLocation(folder, leveledName(source), LevelingEngine::outputExtension(source));
}

std::filesystem::path sidecarLocation(const std::filesystem::path& destination) {
    return uniqueLocation(destination.parent_path(), destination.filename().stem().string(),
                          sidecarExtension);
}

bool isVideoSource(const std::filesystem::path& source) {
    auto extension = source.extension().string();
    if (extension.empty()) {
        return false;
    }
    extension = lowercased(extension.substr(1));
    const auto& video = LevelingEngine::videoExtensions;
    return std::find(video.begin(), video.end(), extension) != video.end();
}

} // namespace ostrand::OutputNaming
