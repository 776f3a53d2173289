#pragma once

#include "MediaAsset.h"
#include "MediaTime.h"

#include <cstdint>
#include <functional>
#include <span>
#include <utility>
#include <vector>

namespace ostrand {

// Format of the mixed stream a reader delivers.
struct SourceAudioFormat {
    double sampleRate = 48000.0;
    std::int64_t channels = 1; // 1 or 2 for leveling; a measurement keeps the layout
    std::int64_t trackCount = 0;
    // The positions of the channels (AV_CH_* bits); 0: the usual layout for
    // the count.
    std::uint64_t channelMask = 0;

    friend bool operator==(const SourceAudioFormat&, const SourceAudioFormat&) = default;
};

// Decodes every audio track of a file, resamples each to one rate and
// channel count (5.1 and other layouts downmixed with the standard matrix)
// and hands their sum, aligned by start times, to a handler as planar float
// blocks. One reader per pass; one thread at a time.
class MixedAudioReader {
public:
    // Blocks hold this many samples per channel; only the last is shorter.
    static constexpr std::int64_t blockSamples = 4096;

    // Receives the first `count` samples of each channel (the buffers may be
    // longer and are reused for the next block) and the block's presentation
    // time. May throw; the read stops and rethrows (OstrandError unchanged).
    using BlockHandler =
        std::function<void(std::span<float* const> planar, std::int64_t count, MediaTime time)>;

    // Highest sample rate of all audio tracks (48000 when none is known),
    // stereo when any track has two or more channels, one channel when `mono`.
    // Throws OstrandError::noAudioTrack when the asset has no audio.
    static std::pair<SourceAudioFormat, std::vector<MediaAsset::AudioTrack>>
    probe(const MediaAsset& asset, bool mono);

    // `isCancelled` (callable from any thread) also breaks off a read that
    // blocks inside FFmpeg; the read then fails with OstrandError::cancelled.
    MixedAudioReader(MediaAsset asset, SourceAudioFormat format,
                     std::vector<MediaAsset::AudioTrack> tracks,
                     std::function<bool()> isCancelled = {});

    // Reads the whole stream, block by block, in order, with a demuxer of its
    // own. The first block's time is the earliest audio start; a track that
    // starts later or ends earlier is silent outside its span. Errors other
    // than OstrandError become OstrandError::unreadable, as does a file that
    // ends well before the length its container declares (cut short). Holes
    // in a track's time stamps become silence, unless they jump past the
    // container's duration (damaged stamps: the audio is then read on
    // contiguously). Samples that are not finite become silence.
    void read(const BlockHandler& handler);

    const SourceAudioFormat& format() const noexcept { return m_format; }

private:
    MediaAsset m_asset;
    SourceAudioFormat m_format;
    std::vector<MediaAsset::AudioTrack> m_tracks;
    std::function<bool()> m_isCancelled;
};

} // namespace ostrand
