#include "OutputNaming.h"

#include "OutputFormat.h"

#include <charconv>
#include <system_error>

namespace ostrand::OutputNaming {

namespace {

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
    std::string fileName(name);
    if (!extension.empty()) {
        fileName += '.';
        fileName += extension;
    }
    const auto first = folder / fileName;
    for (int number = 1;; ++number) {
        auto candidate = numberedLocation(first, number);
        bool unknown = false;
        if (!isTaken(candidate, unknown) || unknown) {
            return candidate;
        }
    }
}

std::filesystem::path numberedLocation(const std::filesystem::path& first, int number) {
    if (number <= 1) {
        return first;
    }
    std::string stem = first.stem().string();
    // A trailing " N" (N of 2 or more) is this series' own number.
    const auto space = stem.rfind(' ');
    if (space != std::string::npos && space + 1 < stem.size()) {
        int already = 0;
        const char* begin = stem.data() + space + 1;
        const char* end = stem.data() + stem.size();
        const auto [stop, error] = std::from_chars(begin, end, already);
        if (error == std::errc{} && stop == end && already >= 2 && *begin != '0') {
            stem.erase(space);
            number += already - 1;
        }
    }
    return first.parent_path() / (stem + ' ' + std::to_string(number) + first.extension().string());
}

std::filesystem::path leveledLocation(const std::filesystem::path& source,
                                      const std::filesystem::path& folder) {
    return uniqueLocation(folder, leveledName(source), OutputFormat::forSource(source).extension);
}

std::filesystem::path sidecarLocation(const std::filesystem::path& destination) {
    return uniqueLocation(destination.parent_path(), destination.filename().stem().string(),
                          sidecarExtension);
}

bool isLeveledName(const std::filesystem::path& file) {
    std::string stem = file.stem().string();
    const auto space = stem.rfind(' ');
    if (space != std::string::npos && space + 1 < stem.size()) {
        int number = 0;
        const char* end = stem.data() + stem.size();
        const auto [stop, error] = std::from_chars(stem.data() + space + 1, end, number);
        if (error == std::errc{} && stop == end && number >= 2) {
            stem.erase(space);
        }
    }
    return stem.ends_with(leveledSuffix);
}

bool isVideoSource(const std::filesystem::path& source) {
    return OutputFormat::forSource(source).video;
}

} // namespace ostrand::OutputNaming
