#include "OutputFormat.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <vector>

namespace ostrand::OutputFormat {

namespace {

struct Row {
    std::string_view sourceExtensions; // space-separated
    std::string_view sourceMimeTypes;  // space-separated, as shared-mime-info names them
    std::string_view extension;
    Container container;
    AudioCodec audio;
    bool video;
};

// clang-format off
constexpr std::array rows{
    Row{"mp4",             "video/mp4",                    "mp4",  Container::mpeg4,          AudioCodec::aac,   true},
    Row{"m4v",             "video/mp4",                    "m4v",  Container::mpeg4,          AudioCodec::aac,   true},
    Row{"3gp 3g2",         "video/3gpp video/3gpp2",       "mp4",  Container::mpeg4,          AudioCodec::aac,   true},
    Row{"mov qt",          "video/quicktime",              "mov",  Container::quickTimeMovie, AudioCodec::aac,   true},
    Row{"wav aif aiff",    "audio/x-wav audio/x-aiff",     "wav",  Container::wave,           AudioCodec::pcm24, false},
    Row{"mkv",             "video/x-matroska",             "mkv",  Container::matroska,       AudioCodec::aac,   true},
    Row{"mka",             "audio/x-matroska",             "mka",  Container::matroska,       AudioCodec::aac,   false},
    Row{"webm",            "video/webm audio/webm",        "webm", Container::webm,           AudioCodec::opus,  true},
    Row{"ts mts m2ts",     "video/mp2t",                   "ts",   Container::mpegTS,         AudioCodec::aac,   true},
    Row{"flac",            "audio/flac",                   "flac", Container::flac,           AudioCodec::flac,  false},
    // Video containers that cannot carry AAC well, or that FFmpeg can read
    // but not write.
    Row{"avi divx mpg mpeg m2v vob flv f4v wmv asf ogv mxf dv rm rmvb nut",
        "video/x-msvideo video/mpeg video/x-flv video/x-ms-wmv application/vnd.ms-asf video/ogg "
        "application/mxf video/dv application/vnd.rn-realmedia",
                                                           "mkv",  Container::matroska,       AudioCodec::aac,   true},
    // Every other audio file, named or not.
    Row{"mp3 mp2 mpga m4a m4b m4r aac ogg oga opus weba wma ra ac3 eac3 amr awb ape wv mpc tta au "
        "snd dts aifc caf w64 voc spx",
        "audio/mpeg audio/mp2 audio/mp4 audio/x-m4b audio/aac audio/ogg audio/x-vorbis+ogg "
        "audio/x-opus+ogg audio/x-ms-wma audio/ac3 audio/AMR audio/AMR-WB audio/x-ape "
        "audio/x-wavpack audio/x-musepack audio/x-tta audio/basic audio/vnd.dts audio/x-aifc "
        "audio/x-voc audio/x-speex audio/webm audio/vnd.rn-realaudio",
                                                           "m4a",  Container::appleM4A,       AudioCodec::aac,   false},
};
// clang-format on

constexpr const Row& otherAudio = rows.back();

template <typename Each>
void forEachWord(std::string_view list, Each&& each) {
    while (!list.empty()) {
        const auto space = list.find(' ');
        each(list.substr(0, space));
        list = space == std::string_view::npos ? std::string_view{} : list.substr(space + 1);
    }
}

const Row* rowFor(std::string_view extension) {
    for (const Row& row : rows) {
        bool found = false;
        forEachWord(row.sourceExtensions,
                    [&](std::string_view word) { found = found || word == extension; });
        if (found) {
            return &row;
        }
    }
    return nullptr;
}

std::vector<std::string> allWords(std::string_view Row::*list) {
    std::vector<std::string> words;
    for (const Row& row : rows) {
        forEachWord(row.*list, [&](std::string_view word) { words.emplace_back(word); });
    }
    std::sort(words.begin(), words.end());
    words.erase(std::unique(words.begin(), words.end()), words.end());
    return words;
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
    const Row* row = rowFor(lowerExtension(source));
    return toRule(row ? *row : otherAudio);
}

bool isKnownSource(const std::filesystem::path& source) {
    return rowFor(lowerExtension(source)) != nullptr;
}

std::vector<std::string> sourceExtensions() {
    return allWords(&Row::sourceExtensions);
}

std::vector<std::string> sourceMimeTypes() {
    return allWords(&Row::sourceMimeTypes);
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

bool isLossy(AudioCodec codec) noexcept {
    return codec == AudioCodec::aac || codec == AudioCodec::opus;
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
