#pragma once

#include "MediaAsset.h"
#include "MediaTime.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <vector>

namespace ostrand {

enum class FileType { mpeg4, quickTimeMovie, appleM4A, wave };

// Writes one output file: a new audio track from planar float blocks (AAC at
// 256 kbit/s stereo or 160 kbit/s mono, or 24-bit PCM) plus, for a video
// source, every given video track copied packet for packet (codec
// parameters, time base, rotation, language and title kept) and interleaved
// with the audio by time. The source's container tags are carried over.
//
// Any file at `url` is removed first (never the source itself); cancel(),
// a failed construction and destruction without finish() remove the partial
// file. One thread drives it. Encoding and muxing run on a thread of the
// writer's own, fed through a queue of a few blocks: appendAudio() copies the
// block and returns unless the queue is full, and an error of that thread
// surfaces as OstrandError::writerFailed from the next appendAudio() or
// finish().
class MediaWriter {
public:
    enum class Encoding { aac = 0, pcm24 = 1 };

    MediaWriter(std::filesystem::path url, FileType fileType, double sampleRate,
                std::int64_t channels, Encoding encoding, const MediaAsset& asset,
                std::vector<MediaAsset::VideoTrack> videoTracks);
    ~MediaWriter();
    MediaWriter(const MediaWriter&) = delete;
    MediaWriter& operator=(const MediaWriter&) = delete;

    // Blocks in time order without gaps: the first block's time is where the
    // audio starts, the others follow it sample by sample. count < 1 does
    // nothing. Throws OstrandError::writerFailed.
    void appendAudio(std::span<const float* const> planar, std::int64_t count, MediaTime at);
    // Completes the file, the rest of the video included. Throws
    // OstrandError::writerFailed (a full disk among the causes); the writer
    // then stays unfinished and cancel() or destruction removes the file.
    void finish();
    // Abandons the file and deletes it. Never throws.
    void cancel() noexcept;

    const std::filesystem::path& url() const noexcept;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace ostrand
