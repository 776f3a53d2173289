#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

// What a leveled file is made of, decided from the source's file name: the
// one table behind the engine, the writer, the naming, the queue and the
// command line. A source keeps its container wherever that container can
// carry the audio it gets; its video is copied; lossless audio stays
// lossless. AVI and other video containers without a row of their own become
// Matroska, which holds every video codec they carry, with AAC audio; every
// other audio-only source becomes AAC in M4A.
namespace ostrand::OutputFormat {

enum class Container { mpeg4, quickTimeMovie, appleM4A, wave, matroska, webm, mpegTS, flac };

enum class AudioCodec { aac, pcm24, opus, flac };

struct Rule {
    std::string extension; // of the output, lower case, without a dot
    Container container;
    AudioCodec audio; // for a source without video; with video see audioFor()
    bool video;       // the source's extension names a video container

    // PCM in a WAVE file cannot sit beside video; everything else can.
    AudioCodec audioFor(bool hasVideo) const noexcept {
        return hasVideo && audio == AudioCodec::pcm24 ? AudioCodec::aac : audio;
    }
    friend bool operator==(const Rule&, const Rule&) = default;
};

// The rule for a source, by its lower-cased extension; a name the table
// does not know is taken for audio.
Rule forSource(const std::filesystem::path& source);
// Whether the table names the source's extension: what a drop, the open
// panel and a folder walk take. The command line takes any file.
bool isKnownSource(const std::filesystem::path& source);
// Every source extension (lower case, no dot) and every MIME type the table
// names, sorted: the open panel's filter and the desktop file's list.
std::vector<std::string> sourceExtensions();
std::vector<std::string> sourceMimeTypes();

// FFmpeg's muxer name ("mp4", "mov", "ipod", "wav", "matroska", ...).
const char* muxerName(Container container) noexcept;
// How a user calls the container ("MP4", "QuickTime", "M4A", "WAV", ...).
const char* displayName(Container container) noexcept;
bool holdsChapters(Container container) noexcept;

bool isLossy(AudioCodec codec) noexcept;
// Bit rate of the lossy codecs, by channel count; 0 for lossless ones.
std::int64_t bitRate(AudioCodec codec, std::int64_t channels) noexcept;
// The sample rate to encode at: the source's when the codec takes it, else
// the nearest one it takes (Opus: always 48 kHz; AAC: up to 96 kHz).
double encodedSampleRate(AudioCodec codec, double sourceRate) noexcept;

// The extension lower-cased, without its dot.
std::string lowerExtension(const std::filesystem::path& path);

} // namespace ostrand::OutputFormat
