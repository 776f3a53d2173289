#include "MediaAsset.h"

#include "AvPtr.h"
#include "MediaInput.h"

#include <algorithm>

namespace ostrand {

namespace {

double durationOf(const AVFormatContext& context) {
    if (context.duration != AV_NOPTS_VALUE && context.duration > 0) {
        return static_cast<double>(context.duration) / AV_TIME_BASE;
    }
    double longest = 0.0;
    for (unsigned i = 0; i < context.nb_streams; ++i) {
        const AVStream& stream = *context.streams[i];
        if (stream.duration != AV_NOPTS_VALUE && stream.duration > 0) {
            longest =
                std::max(longest, static_cast<double>(stream.duration) * av_q2d(stream.time_base));
        }
    }
    return longest;
}

} // namespace

MediaAsset MediaAsset::open(const std::filesystem::path& url) {
    const InputContextPtr context = openMediaInput(url);
    MediaAsset asset;
    asset.url = url;
    asset.durationSeconds = durationOf(*context);

    const AVDictionaryEntry* tag = nullptr;
    while ((tag = av_dict_get(context->metadata, "", tag, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
        asset.metadata.emplace(tag->key, tag->value);
    }

    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const AVStream& stream = *context->streams[i];
        const AVCodecParameters& parameters = *stream.codecpar;
        const int index = static_cast<int>(i);
        if (parameters.codec_type == AVMEDIA_TYPE_AUDIO) {
            asset.audioTracks.push_back(
                {index,
                 parameters.sample_rate > 0 ? static_cast<double>(parameters.sample_rate) : 0.0,
                 std::max(parameters.ch_layout.nb_channels, 0)});
        } else if (parameters.codec_type == AVMEDIA_TYPE_VIDEO &&
                   (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) == 0) {
            // Cover art is a still picture stored as a video stream, not a track.
            asset.videoTracks.push_back({index});
        }
    }
    return asset;
}

} // namespace ostrand
