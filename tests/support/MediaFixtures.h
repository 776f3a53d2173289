#pragma once

#include "support/Signals.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Media files made at test time with the ffmpeg command-line tools (which
// must be on PATH), and what those tools report about files. Nothing here
// links FFmpeg's libraries, so any layer's tests can use it. Every function
// throws std::runtime_error, with the tool's own message, when a tool fails.
namespace ostrand::test {

// One generated audio track. Fields default as shown; the chainable
// setters return a changed copy, e.g. AudioRecipe().rate(44100).channelLayout("mono").
struct AudioRecipe {
    int sampleRate = 48000;
    std::string layout = "stereo"; // an FFmpeg layout name: "mono", "stereo", "5.1", ...
    double seconds = 2.0;
    double startSeconds = 0.0;  // where the track starts in the file
    double frequencyHz = 440.0; // a sine of this frequency; 0 gives white noise
    double peakDbfs = -20.0;    // the same signal on every channel
    std::string codec;          // empty: the container's usual codec (see makeMedia)
    std::string bitRate;        // e.g. "96k"; empty: the encoder's default
    std::string language;       // stream tags; empty: none
    std::string title;

    AudioRecipe rate(int hz) const {
        return with([&](AudioRecipe& s) { s.sampleRate = hz; });
    }
    AudioRecipe channelLayout(std::string name) const {
        return with([&](AudioRecipe& s) { s.layout = std::move(name); });
    }
    AudioRecipe lasting(double duration) const {
        return with([&](AudioRecipe& s) { s.seconds = duration; });
    }
    AudioRecipe startingAt(double offset) const {
        return with([&](AudioRecipe& s) { s.startSeconds = offset; });
    }
    AudioRecipe tone(double hz) const {
        return with([&](AudioRecipe& s) { s.frequencyHz = hz; });
    }
    AudioRecipe noise() const { return tone(0.0); }
    AudioRecipe peak(double dbfs) const {
        return with([&](AudioRecipe& s) { s.peakDbfs = dbfs; });
    }
    AudioRecipe encodedAs(std::string name, std::string kbits = {}) const {
        return with([&](AudioRecipe& s) {
            s.codec = std::move(name);
            s.bitRate = std::move(kbits);
        });
    }
    AudioRecipe tagged(std::string lang, std::string name = {}) const {
        return with([&](AudioRecipe& s) {
            s.language = std::move(lang);
            s.title = std::move(name);
        });
    }

private:
    template <typename Change>
    AudioRecipe with(Change change) const {
        AudioRecipe copy = *this;
        change(copy);
        return copy;
    }
};

// One generated video track: FFmpeg's moving test pattern.
struct VideoRecipe {
    double seconds = 2.0;
    int width = 160;
    int height = 120;
    int framesPerSecond = 25;
    std::string codec = "libx264";
    bool bFrames = true;     // reordered frames: decode and presentation times differ
    int rotationDegrees = 0; // display rotation, kept as the stream's display matrix
    std::string language;
    std::string title;

    VideoRecipe lasting(double duration) const {
        return with([&](VideoRecipe& s) { s.seconds = duration; });
    }
    VideoRecipe size(int w, int h) const {
        return with([&](VideoRecipe& s) {
            s.width = w;
            s.height = h;
        });
    }
    VideoRecipe rotated(int degrees) const {
        return with([&](VideoRecipe& s) { s.rotationDegrees = degrees; });
    }
    VideoRecipe withoutBFrames() const {
        return with([](VideoRecipe& s) { s.bFrames = false; });
    }
    VideoRecipe tagged(std::string lang, std::string name = {}) const {
        return with([&](VideoRecipe& s) {
            s.language = std::move(lang);
            s.title = std::move(name);
        });
    }

private:
    template <typename Change>
    VideoRecipe with(Change change) const {
        VideoRecipe copy = *this;
        change(copy);
        return copy;
    }
};

struct MediaRecipe {
    std::vector<VideoRecipe> video;                        // stored first, in order
    std::vector<AudioRecipe> audio;                        // then these
    std::vector<std::pair<std::string, std::string>> tags; // container tags
    bool fastStart = false; // MPEG-4/QuickTime: index at the front (survives truncation)
    std::string format;     // ffmpeg muxer name; empty: from the extension ("qt" -> mov)

    MediaRecipe withVideo(VideoRecipe recipe) const {
        MediaRecipe copy = *this;
        copy.video.push_back(std::move(recipe));
        return copy;
    }
    MediaRecipe withAudio(AudioRecipe recipe) const {
        MediaRecipe copy = *this;
        copy.audio.push_back(std::move(recipe));
        return copy;
    }
    MediaRecipe tagged(std::string key, std::string value) const {
        MediaRecipe copy = *this;
        copy.tags.emplace_back(std::move(key), std::move(value));
        return copy;
    }
    MediaRecipe fastStarting() const {
        MediaRecipe copy = *this;
        copy.fastStart = true;
        return copy;
    }
};

// Writes `path` as described. The container follows the extension. Audio
// codecs by default: AAC for mp4/m4v/m4a/mov/qt, 16-bit PCM for wav, big-endian
// 16-bit PCM for aif/aiff, MP3 for mp3, FLAC for mkv. Returns `path`.
std::filesystem::path makeMedia(const std::filesystem::path& path, const MediaRecipe& recipe);

// Ready-made fixtures, each written to `path` (whose extension picks the
// container) and returned. Sines unless said otherwise.
//   sineFile       one audio track, no video (WAV, MP3, AIFF, M4A, ... by extension)
//   noiseFile      one track of white noise, peak `peakDbfs`
//   videoFile      `seconds` of test pattern, 160x120 H.264 with B-frames, plus one
//                  stereo 48 kHz AAC track as long; tagged title "Ostrand fixture",
//                  video language "eng" and title "Camera"
//   rotatedVideo   as videoFile, video displayed rotated by `degrees`
//   videoOnly      the test pattern without any audio track
//   twoTrackFile   44.1 kHz mono (330 Hz, 2 s) and 48 kHz stereo (880 Hz, 3 s)
//   surroundFile   one 5.1 track, the same sine on all six channels
std::filesystem::path sineFile(const std::filesystem::path& path, int sampleRate = 48000,
                               const std::string& layout = "stereo", double seconds = 2.0,
                               double frequencyHz = 440.0, double peakDbfs = -20.0);
std::filesystem::path noiseFile(const std::filesystem::path& path, int sampleRate = 48000,
                                const std::string& layout = "stereo", double seconds = 2.0,
                                double peakDbfs = -20.0);
std::filesystem::path videoFile(const std::filesystem::path& path, double seconds = 2.0);
std::filesystem::path rotatedVideo(const std::filesystem::path& path, int degrees = 90);
std::filesystem::path videoOnly(const std::filesystem::path& path, double seconds = 2.0);
std::filesystem::path twoTrackFile(const std::filesystem::path& path);
std::filesystem::path surroundFile(const std::filesystem::path& path, double seconds = 2.0);

// A copy of the first `keepFraction` of `source`'s bytes: a cut-short file.
std::filesystem::path truncatedCopy(const std::filesystem::path& source,
                                    const std::filesystem::path& path, double keepFraction);
// A file holding `text`, whatever its name says.
std::filesystem::path textFile(const std::filesystem::path& path,
                               const std::string& text = "This is not a movie.\n");
// A 32-bit float WAV of `audio`, written directly (no tool, no rounding).
std::filesystem::path floatWav(const std::filesystem::path& path, const PlanarAudio& audio);

// What ffprobe reports about one stream.
struct StreamInfo {
    int index = -1;
    std::string codecType; // "audio", "video", "data", ...
    std::string codecName; // "aac", "pcm_s24le", "h264", ...
    int sampleRate = 0;
    int channels = 0;
    int bitsPerSample = 0;
    std::int64_t bitRate = 0; // 0 when not reported
    double startSeconds = 0.0;
    double durationSeconds = 0.0;
    std::optional<double> rotationDegrees; // from the display matrix
    std::map<std::string, std::string> tags;
    std::map<std::string, std::string> fields; // every reported field, e.g. "disposition.default"
};

struct ProbeInfo {
    std::string formatName;
    double durationSeconds = 0.0;
    std::map<std::string, std::string> tags;
    std::vector<StreamInfo> streams;

    std::vector<StreamInfo> ofType(const std::string& codecType) const;
};

ProbeInfo probeMedia(const std::filesystem::path& path);

// One packet of a stream as copied out (ffmpeg -c copy -f framemd5).
struct PacketDigest {
    int stream = 0;
    double dtsSeconds = 0.0;
    double ptsSeconds = 0.0;
    std::int64_t size = 0;
    std::string md5;
};

// The video packets of a file, in file order, with timestamps in seconds.
std::vector<PacketDigest> videoPacketDigests(const std::filesystem::path& path);

// The audio stream `audioIndex` (0 = first audio stream) decoded by ffmpeg
// to float, optionally converted to `sampleRate` and `channels` (0 = as is).
PlanarAudio decodeAudio(const std::filesystem::path& path, int audioIndex = 0, int sampleRate = 0,
                        int channels = 0);

// Runs a shell command; returns its standard output, throws on failure.
std::string runCommand(const std::string& command);
std::string shellQuote(const std::string& text);

} // namespace ostrand::test
