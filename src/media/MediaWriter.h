#pragma once

#include "LevelingReport.h"
#include "MediaAsset.h"
#include "MediaTime.h"
#include "OutputFormat.h"
#include "OutputNaming.h"
#include "dsp/LoudnessMeter.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace ostrand {

using FileType = OutputFormat::Container;

// Writes one output file: a new audio track from planar float blocks (AAC,
// Opus, FLAC or 24-bit PCM at the rates of the output format) plus, for a
// video source, every given video track copied packet for packet (codec
// parameters, time base, rotation, language and title kept) and interleaved
// with the audio by time. The source's container tags are carried over; with
// `keepOtherStreams` so are its subtitles, cover art, attachments and
// chapters, wherever the container can hold them (notes() lists what it
// cannot).
//
// The file is written unnamed in the destination's folder and appears under
// its name only when finish() has completed and flushed it (AtomicFile): a
// failure, cancel() or destruction without finish() leaves nothing behind and
// never touches a file already at `url`. finish() replaces such a file,
// moves on to the next free numbered name, or fails with
// OstrandError::exportFailed("<url> exists"), as `existing` says; url() is
// then the name used. The source is never replaced.
//
// One thread drives it. Encoding and muxing run on a thread of the writer's
// own, fed through a pipe of a few blocks: appendAudio() copies the block and
// returns unless the pipe is full, and an error of that thread surfaces as
// OstrandError::writerFailed from the next appendAudio() or finish().
//
// Every file written is metered on what a player will hear: a lossy codec's
// packets are decoded as they are written, on the encoding thread; lossless
// samples are metered as they are.
class MediaWriter {
public:
    using Encoding = OutputFormat::AudioCodec;

    MediaWriter(std::filesystem::path url, OutputNaming::ExistingFile existing, FileType fileType,
                double sampleRate, std::int64_t channels, Encoding encoding,
                const MediaAsset& asset, std::vector<MediaAsset::VideoTrack> videoTracks,
                bool keepOtherStreams = false);
    ~MediaWriter();
    MediaWriter(const MediaWriter&) = delete;
    MediaWriter& operator=(const MediaWriter&) = delete;

    static bool isLossy(Encoding encoding) noexcept;

    // Blocks in time order without gaps: the first block's time is where the
    // audio starts, the others follow it sample by sample. count < 1 does
    // nothing. Throws OstrandError::writerFailed.
    void appendAudio(std::span<const float* const> planar, std::int64_t count, MediaTime at);
    // Where finish() will put the file; only before finish().
    void setURL(std::filesystem::path url);
    // Completes and flushes the file, the rest of the video included, still
    // without a name. Throws OstrandError::writerFailed (a full disk among
    // the causes); the writer then stays unfinished and cancel() or
    // destruction removes the file.
    void complete();
    // Completes the file if that is still to do, then gives it its name.
    // Throws OstrandError::writerFailed, as complete().
    void finish();
    // Abandons the file. Never throws.
    void cancel() noexcept;

    const std::filesystem::path& url() const noexcept;
    // The written audio as a programme meter reads it (every channel a front
    // one); only after complete(), else throws OstrandError::writerFailed.
    const LoudnessFigures& measured() const;
    // Adds the time its thread spent encoding, metering and writing.
    void addTimes(StageTimes& times) const noexcept;
    // What of the source could not be kept, one plain sentence each, e.g.
    // "the subtitles (hdmv_pgs_subtitle) cannot be kept in MP4".
    const std::vector<std::string>& notes() const noexcept;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace ostrand
