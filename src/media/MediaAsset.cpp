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

} // namespace

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
            asset.audioTracks.push_back(
                {index,
                 parameters.sample_rate > 0 ? static_cast<double>(parameters.sample_rate) : 0.0,
                 std::max(parameters.ch_layout.nb_channels, 0)});
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
