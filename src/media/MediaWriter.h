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
// source, every given video track copied packet for packet. The source's
// metadata is carried over. Any file at `url` is removed first; cancel()
// (and destruction without finish()) removes the partial file. One thread
// drives it; it may run its encoder on a thread of its own.
class MediaWriter {
public:
    enum class Encoding { aac = 0, pcm24 = 1 };

    MediaWriter(std::filesystem::path url, FileType fileType, double sampleRate,
                std::int64_t channels, Encoding encoding, const MediaAsset& asset,
                std::vector<MediaAsset::VideoTrack> videoTracks);
    ~MediaWriter();
    MediaWriter(const MediaWriter&) = delete;
    MediaWriter& operator=(const MediaWriter&) = delete;

    // Blocks in time order without gaps; count < 1 does nothing. Throws
    // OstrandError::writerFailed.
    void appendAudio(std::span<const float* const> planar, std::int64_t count, MediaTime at);
    // Completes the file. Throws OstrandError::writerFailed.
    void finish();
    // Abandons the file and deletes it. Never throws.
    void cancel() noexcept;

    const std::filesystem::path& url() const noexcept;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace ostrand
