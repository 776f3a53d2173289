#pragma once

#include "support/ReferenceMeters.h"

#include <filesystem>
#include <map>
#include <string>
#include <vector>

// Media files made at test time with the ffmpeg command-line tools (on PATH),
// and what ffprobe reports about them. No FFmpeg library is linked, so any
// layer's tests can use this. Failures throw std::runtime_error.
namespace ostrand::test {

struct AudioRecipe {
    int sampleRate = 48000;
    std::string layout = "stereo"; // an FFmpeg layout name: "mono", "stereo", "5.1", ...
    double seconds = 2.0;
    double startSeconds = 0.0;  // where the track starts in the file
    double frequencyHz = 440.0; // a sine on every channel; 0 gives white noise
    double peakDbfs = -20.0;
    std::string codec;          // empty: 16-bit PCM for wav/aif/aiff, MP3 for mp3, else AAC
    std::filesystem::path from; // when set, this file's audio instead of a generated signal
};

// FFmpeg's moving test pattern, 160x120 H.264 with B-frames.
struct VideoRecipe {
    double seconds = 2.0;
    int rotationDegrees = 0; // kept as the stream's display matrix
    std::string language;
    bool coverArt = false; // one still picture attached to the audio
};

struct MediaRecipe {
    std::vector<VideoRecipe> video; // stored first
    std::vector<AudioRecipe> audio;
    std::string title;      // container tag
    bool subtitles = false; // two text cues, in the container's own text format
    int chapters = 0;       // of one second each
    std::string timecode;   // "01:00:00:00" gives a QuickTime timecode track
};

// Writes `path` as described; the extension (lower case) picks the container
// ("qt": mov) and the codecs it usually holds (VP8 and Opus in WebM, FLAC in
// FLAC, MP3 in AVI and MP3, H.264 and AAC elsewhere).
std::filesystem::path makeMedia(const std::filesystem::path& path, const MediaRecipe& recipe);

std::filesystem::path sineFile(const std::filesystem::path& path, int sampleRate = 48000,
                               const std::string& layout = "stereo", double seconds = 2.0,
                               double frequencyHz = 440.0, double peakDbfs = -20.0);
std::filesystem::path noiseFile(const std::filesystem::path& path, int sampleRate = 48000,
                                const std::string& layout = "stereo", double seconds = 2.0,
                                double peakDbfs = -20.0);
// Video with one stereo 48 kHz track as long; video language "eng", title
// tag "Ostrand fixture".
std::filesystem::path videoFile(const std::filesystem::path& path, double seconds = 2.0);
std::filesystem::path textFile(const std::filesystem::path& path,
                               const std::string& text = "This is not a movie.\n");
// The bytes `path` holds; none if it cannot be read.
std::string fileBytes(const std::filesystem::path& path);
// The first `keepFraction` of the bytes of `source`.
std::filesystem::path truncatedCopy(const std::filesystem::path& source,
                                    const std::filesystem::path& path, double keepFraction);
// AAC in Matroska whose blocks of 0.1 s lie `gapSeconds` apart, a header
// then claiming hours for a few seconds of sound.
std::filesystem::path spreadOut(const std::filesystem::path& path, double seconds,
                                double gapSeconds);

struct StreamInfo {
    // As ffprobe names them: "codec_type", "codec_name", "channels", "tags.language", ...
    std::map<std::string, std::string> fields;
    std::vector<std::string> packets; // "pts md5" of each packet, in file order
};

struct ProbeInfo {
    std::string formatName; // FFmpeg's, e.g. "matroska,webm"
    int chapters = 0;
    std::map<std::string, std::string> tags; // the container's
    std::vector<StreamInfo> streams;

    std::vector<StreamInfo> ofType(const std::string& codecType) const;
};

ProbeInfo probeMedia(const std::filesystem::path& path);

// The first audio stream decoded to float by ffmpeg, at its own rate and channels.
PlanarAudio decodeAudio(const std::filesystem::path& path);

} // namespace ostrand::test
