#include "MediaAsset.h"

#include "AvPtr.h"
#include "MediaInput.h"

#include <algorithm>
#include <utility>

extern "C" {
#include <libavutil/channel_layout.h>
}

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

const char* otherKind(const AVStream& stream) {
    switch (stream.codecpar->codec_type) {
    case AVMEDIA_TYPE_VIDEO:
        return (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0 ? "cover art" : nullptr;
    case AVMEDIA_TYPE_SUBTITLE:
        return "subtitles";
    case AVMEDIA_TYPE_ATTACHMENT:
        return "attachment";
    case AVMEDIA_TYPE_DATA:
        return "data";
    default:
        return nullptr;
    }
}

// The positions of a stream's channels as a mask in the order FFmpeg
// delivers them after conversion, and the layout's name.
std::pair<std::uint64_t, std::string> positionsOf(const AVChannelLayout& layout) {
    std::uint64_t mask = 0;
    if (layout.order == AV_CHANNEL_ORDER_NATIVE) {
        mask = layout.u.mask;
    } else if (layout.order == AV_CHANNEL_ORDER_CUSTOM) {
        for (int i = 0; i < layout.nb_channels; ++i) {
            const AVChannel channel = av_channel_layout_channel_from_index(&layout, i);
            if (channel < 0 || channel >= 64 || (mask >> channel & 1) != 0) {
                mask = 0;
                break;
            }
            mask |= std::uint64_t{1} << channel;
        }
    }
    AVChannelLayout known{};
    if (mask != 0) {
        av_channel_layout_from_mask(&known, mask);
    } else {
        av_channel_layout_default(&known, layout.nb_channels);
        mask = known.order == AV_CHANNEL_ORDER_NATIVE ? known.u.mask : 0;
    }
    char name[64] = {};
    av_channel_layout_describe(&known, name, sizeof name);
    av_channel_layout_uninit(&known);
    return {mask, name};
}

} // namespace

std::vector<ChannelWeight> channelWeights(std::uint64_t channelMask, std::int64_t channels) {
    std::vector<ChannelWeight> weights;
    constexpr std::uint64_t surrounds = AV_CH_BACK_LEFT | AV_CH_BACK_RIGHT | AV_CH_BACK_CENTER |
                                        AV_CH_SIDE_LEFT | AV_CH_SIDE_RIGHT |
                                        AV_CH_SURROUND_DIRECT_LEFT | AV_CH_SURROUND_DIRECT_RIGHT;
    constexpr std::uint64_t lfe = AV_CH_LOW_FREQUENCY | AV_CH_LOW_FREQUENCY_2;
    for (int bit = 0; bit < 64 && std::ssize(weights) < channels; ++bit) {
        const std::uint64_t position = std::uint64_t{1} << bit;
        if ((channelMask & position) != 0) {
            weights.push_back((position & lfe) != 0         ? ChannelWeight::excluded
                              : (position & surrounds) != 0 ? ChannelWeight::surround
                                                            : ChannelWeight::front);
        }
    }
    weights.resize(static_cast<std::size_t>(std::max<std::int64_t>(channels, 0)),
                   ChannelWeight::front);
    return weights;
}

MediaAsset MediaAsset::open(const std::filesystem::path& url,
                            const std::function<bool()>& interrupted) {
    const InputContextPtr context = openMediaInput(url, &interrupted);
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
            auto [mask, layout] = positionsOf(parameters.ch_layout);
            asset.audioTracks.push_back(
                {index,
                 parameters.sample_rate > 0 ? static_cast<double>(parameters.sample_rate) : 0.0,
                 std::max(parameters.ch_layout.nb_channels, 0), mask, std::move(layout),
                 avcodec_get_name(parameters.codec_id),
                 static_cast<double>(std::max<std::int64_t>(parameters.bit_rate, 0))});
        } else if (parameters.codec_type == AVMEDIA_TYPE_VIDEO &&
                   (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) == 0) {
            asset.videoTracks.push_back({index});
        } else if (const char* kind = otherKind(stream)) {
            // Cover art is a still picture stored as a video stream, not a track.
            // Data streams often have no codec, only a four-character tag.
            char fourcc[AV_FOURCC_MAX_STRING_SIZE] = {};
            const std::string codec = parameters.codec_id != AV_CODEC_ID_NONE
                                          ? avcodec_get_name(parameters.codec_id)
                                          : av_fourcc_make_string(fourcc, parameters.codec_tag);
            asset.otherStreams.push_back({index, kind, codec});
        }
    }
    asset.chapterCount = context->nb_chapters;
    return asset;
}

} // namespace ostrand
