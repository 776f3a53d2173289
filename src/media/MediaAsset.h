#pragma once

#include "dsp/LoudnessMeter.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace ostrand {

// What opening a media file tells about it, without decoding anything.
// Readers and writers open the file again for themselves; an asset is an
// immutable description, safe to share between threads.
struct MediaAsset {
    struct AudioTrack {
        int streamIndex = -1;
        double sampleRate = 0.0; // 0 when the container does not say
        std::int64_t channels = 0;
        // The channels' positions as FFmpeg's AV_CH_* bits (channels without
        // named positions take the usual layout for their count; 0 when
        // there is none) and the layout's name ("stereo", "5.1(side)").
        std::uint64_t channelMask = 0;
        std::string layout;
        std::string codec{};  // FFmpeg's name, e.g. "mp3"
        double bitRate = 0.0; // bit/s, as the container states it; 0 when it does not
    };
    struct VideoTrack {
        int streamIndex = -1;
    };
    // A stream that is kept beside the audio where the output container can
    // hold it: subtitles, cover art, attachments (fonts), data.
    struct OtherStream {
        int streamIndex = -1;
        std::string kind;  // "subtitles", "cover art", "attachment", "data"
        std::string codec; // FFmpeg's name, e.g. "mov_text"
    };

    std::filesystem::path url;
    double durationSeconds = 0.0; // 0 when unknown
    // The container's tags (title, artist, creation_time, ...), copied to
    // the leveled file.
    std::map<std::string, std::string> metadata;
    std::vector<AudioTrack> audioTracks;
    std::vector<VideoTrack> videoTracks;
    std::vector<OtherStream> otherStreams;
    std::int64_t chapterCount = 0;

    // Opens and inspects the file. Throws OstrandError::unreadable with a
    // plain-English reason when it is missing or not a media file.
    // `interrupted` (see openMediaInput) breaks off a blocking open.
    static MediaAsset open(const std::filesystem::path& url,
                           const std::function<bool()>& interrupted = {});
};

// How each channel of a layout counts in a loudness measurement, in the
// layout's order: side and back channels are surrounds, LFE is left out.
// Without a mask every channel counts as a front channel.
std::vector<ChannelWeight> channelWeights(std::uint64_t channelMask, std::int64_t channels);

} // namespace ostrand
