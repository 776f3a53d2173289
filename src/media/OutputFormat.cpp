#include "OutputFormat.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace ostrand::OutputFormat {

namespace {

struct Row {
    std::string_view sourceExtensions; // space-separated
    std::string_view extension;
    Container container;
    AudioCodec audio;
    bool video;
};

// clang-format off
constexpr std::array rows{
    Row{"mp4",             "mp4",  Container::mpeg4,          AudioCodec::aac,   true},
    Row{"m4v",             "m4v",  Container::mpeg4,          AudioCodec::aac,   true},
    Row{"3gp 3g2",         "mp4",  Container::mpeg4,          AudioCodec::aac,   true},
    Row{"mov qt",          "mov",  Container::quickTimeMovie, AudioCodec::aac,   true},
    Row{"wav aif aiff",    "wav",  Container::wave,           AudioCodec::pcm24, false},
    Row{"mkv",             "mkv",  Container::matroska,       AudioCodec::aac,   true},
    Row{"mka",             "mka",  Container::matroska,       AudioCodec::aac,   false},
    Row{"webm",            "webm", Container::webm,           AudioCodec::opus,  true},
    Row{"ts mts m2ts",     "ts",   Container::mpegTS,         AudioCodec::aac,   true},
    Row{"flac",            "flac", Container::flac,           AudioCodec::flac,  false},
    // Video containers that cannot carry AAC well, or that FFmpeg can read
    // but not write.
    Row{"avi divx mpg mpeg m2v vob flv f4v wmv asf ogv mxf dv rm rmvb nut",
                           "mkv",  Container::matroska,       AudioCodec::aac,   true},
};
// clang-format on

constexpr Row otherAudio{"", "m4a", Container::appleM4A, AudioCodec::aac, false};

bool listed(std::string_view list, std::string_view word) {
    while (!list.empty()) {
        const auto space = list.find(' ');
        if (list.substr(0, space) == word) {
            return true;
        }
        list = space == std::string_view::npos ? std::string_view{} : list.substr(space + 1);
    }
    return false;
}

Rule toRule(const Row& row) {
    return {std::string(row.extension), row.container, row.audio, row.video};
}

} // namespace

std::string lowerExtension(const std::filesystem::path& path) {
    std::string ext = path.extension().string();
    if (!ext.empty() && ext.front() == '.') {
        ext.erase(0, 1);
    }
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

Rule forSource(const std::filesystem::path& source) {
    const std::string ext = lowerExtension(source);
    if (!ext.empty()) {
        for (const Row& row : rows) {
            if (listed(row.sourceExtensions, ext)) {
                return toRule(row);
            }
        }
    }
    return toRule(otherAudio);
}

const char* muxerName(Container container) noexcept {
    switch (container) {
    case Container::mpeg4:
        return "mp4";
    case Container::quickTimeMovie:
        return "mov";
    case Container::appleM4A:
        return "ipod";
    case Container::wave:
        return "wav";
    case Container::matroska:
        return "matroska";
    case Container::webm:
        return "webm";
    case Container::mpegTS:
        return "mpegts";
    case Container::flac:
        return "flac";
    }
    return "mp4";
}

const char* displayName(Container container) noexcept {
    switch (container) {
    case Container::mpeg4:
        return "MP4";
    case Container::quickTimeMovie:
        return "QuickTime";
    case Container::appleM4A:
        return "M4A";
    case Container::wave:
        return "WAV";
    case Container::matroska:
        return "Matroska";
    case Container::webm:
        return "WebM";
    case Container::mpegTS:
        return "MPEG-TS";
    case Container::flac:
        return "FLAC";
    }
    return "";
}

bool holdsChapters(Container container) noexcept {
    switch (container) {
    case Container::mpeg4:
    case Container::quickTimeMovie:
    case Container::appleM4A:
    case Container::matroska:
    case Container::webm:
    case Container::flac: // as Vorbis comments
        return true;
    case Container::wave:
    case Container::mpegTS:
        return false;
    }
    return false;
}

std::int64_t bitRate(AudioCodec codec, std::int64_t channels) noexcept {
    const bool stereo = channels >= 2;
    switch (codec) {
    case AudioCodec::aac:
        return stereo ? 256000 : 160000;
    case AudioCodec::opus:
        // Opus is transparent for speech and music well below AAC's rates.
        return stereo ? 160000 : 96000;
    case AudioCodec::pcm24:
    case AudioCodec::flac:
        return 0;
    }
    return 0;
}

double encodedSampleRate(AudioCodec codec, double sourceRate) noexcept {
    switch (codec) {
    case AudioCodec::opus:
        return 48000.0;
    case AudioCodec::aac: {
        // The rates of MPEG-4 audio, ascending.
        constexpr std::array<double, 13> rates{7350,  8000,  11025, 12000, 16000, 22050, 24000,
                                               32000, 44100, 48000, 64000, 88200, 96000};
        for (const double rate : rates) {
            if (rate >= sourceRate) {
                return rate;
            }
        }
        return rates.back();
    }
    case AudioCodec::pcm24:
    case AudioCodec::flac:
        return sourceRate;
    }
    return sourceRate;
}

} // namespace ostrand::OutputFormat
