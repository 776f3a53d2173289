#include "StreamCopy.h"

#include "MediaInput.h"
#include "WriterParts.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cstring>

namespace ostrand {

using writer::check;
using writer::fail;
using Container = OutputFormat::Container;

namespace {

bool isPicture(AVCodecID codec) {
    return codec == AV_CODEC_ID_MJPEG || codec == AV_CODEC_ID_PNG || codec == AV_CODEC_ID_BMP;
}

const char* pictureMimeType(AVCodecID codec) {
    switch (codec) {
    case AV_CODEC_ID_PNG:
        return "image/png";
    case AV_CODEC_ID_BMP:
        return "image/bmp";
    default:
        return "image/jpeg";
    }
}

// Whether the muxer takes this codec. A muxer that cannot tell (MPEG-TS,
// FLAC) takes what came from a file of its own kind.
bool muxerTakes(const AVOutputFormat& format, AVCodecID codec, const char* sourceFormat) {
    const int answer = avformat_query_codec(&format, codec, FF_COMPLIANCE_NORMAL);
    if (answer >= 0) {
        return answer == 1;
    }
    return sourceFormat != nullptr && std::strstr(sourceFormat, format.name) != nullptr;
}

} // namespace

StreamCopy::StreamCopy(AVFormatContext& output, Container container, const MediaAsset& asset,
                       const std::vector<MediaAsset::VideoTrack>& videoTracks, bool keepOthers)
    : m_output(output)
    , m_container(container) {
    try {
        m_source = openMediaInput(asset.url);
    } catch (const OstrandError& error) {
        fail("cannot start video reader: " + error.message());
    }
    const AVFormatContext& source = *m_source;
    const char* sourceFormat = source.iformat != nullptr ? source.iformat->name : nullptr;
    m_outputStreamOf.assign(source.nb_streams, -1);
    for (const auto& track : videoTracks) {
        if (track.streamIndex < 0 ||
            static_cast<unsigned>(track.streamIndex) >= source.nb_streams) {
            fail("cannot read video track");
        }
        const AVStream& in = *source.streams[track.streamIndex];
        if (in.codecpar->codec_type != AVMEDIA_TYPE_VIDEO) {
            fail("cannot read video track");
        }
        if (!muxerTakes(*m_output.oformat, in.codecpar->codec_id, sourceFormat)) {
            const std::string video =
                std::string("the video (") + avcodec_get_name(in.codecpar->codec_id) + ")";
            // A video file must keep its picture; an audio format that
            // happens to carry one says so and goes on.
            if (isVideoContainer()) {
                fail("cannot pass video through: " + video + " cannot be kept in " +
                     OutputFormat::displayName(m_container));
            }
            note(video);
            continue;
        }
        copyStream(in);
    }
    if (keepOthers) {
        for (const auto& other : asset.otherStreams) {
            if (other.streamIndex < 0 ||
                static_cast<unsigned>(other.streamIndex) >= source.nb_streams) {
                continue;
            }
            const AVStream& in = *source.streams[other.streamIndex];
            if (!addOtherStream(in, sourceFormat)) {
                note("the " + other.kind + " (" + other.codec + ")");
            }
        }
        copyChapters(source);
        if (!asset.audioTracks.empty()) {
            const AVStream& audio = *source.streams[asset.audioTracks.front().streamIndex];
            const AVDictionaryEntry* tag = nullptr;
            while ((tag = av_dict_get(audio.metadata, "", tag, AV_DICT_IGNORE_SUFFIX))) {
                m_audioTags.emplace(tag->key, tag->value);
            }
        }
    }
    for (unsigned i = 0; i < source.nb_streams; ++i) {
        if (m_outputStreamOf[i] < 0) {
            source.streams[i]->discard = AVDISCARD_ALL;
        }
    }
    m_packet = allocatePacket();
}

bool StreamCopy::isVideoContainer() const {
    return m_container == Container::mpeg4 || m_container == Container::quickTimeMovie ||
           m_container == Container::matroska || m_container == Container::webm ||
           m_container == Container::mpegTS;
}

void StreamCopy::note(const std::string& what) {
    const std::string text = what + " cannot be kept in " + OutputFormat::displayName(m_container);
    if (std::find(m_notes.begin(), m_notes.end(), text) == m_notes.end()) {
        m_notes.push_back(text);
    }
}

bool StreamCopy::addOtherStream(const AVStream& in, const char* sourceFormat) {
    const AVCodecParameters& parameters = *in.codecpar;
    const bool picture = parameters.codec_type == AVMEDIA_TYPE_VIDEO;
    const bool matroska = m_container == Container::matroska || m_container == Container::webm;
    if (picture) {
        if (!isPicture(parameters.codec_id)) {
            return false;
        }
        if (m_container == Container::matroska) {
            return addPictureAttachment(in);
        }
        if (m_container == Container::mpeg4 || m_container == Container::quickTimeMovie ||
            m_container == Container::appleM4A || m_container == Container::flac) {
            copyStream(in);
            return true;
        }
        return false;
    }
    if (parameters.codec_type == AVMEDIA_TYPE_ATTACHMENT) {
        if (m_container != Container::matroska) {
            return false;
        }
        copyStream(in, false);
        return true;
    }
    if (parameters.codec_id == AV_CODEC_ID_NONE ||
        (matroska && parameters.codec_type == AVMEDIA_TYPE_DATA) ||
        !muxerTakes(*m_output.oformat, parameters.codec_id, sourceFormat)) {
        return false;
    }
    copyStream(in);
    return true;
}

AVStream& StreamCopy::newStream() {
    AVStream* out = avformat_new_stream(&m_output, nullptr);
    if (out == nullptr) {
        throw std::bad_alloc();
    }
    return *out;
}

// Matroska keeps cover art as an attached file, which readers show as the
// cover again.
bool StreamCopy::addPictureAttachment(const AVStream& in) {
    const AVPacket& picture = in.attached_pic;
    if (picture.data == nullptr || picture.size <= 0) {
        return false;
    }
    AVStream& out = newStream();
    out.codecpar->codec_type = AVMEDIA_TYPE_ATTACHMENT;
    out.codecpar->codec_id = in.codecpar->codec_id;
    out.codecpar->extradata = static_cast<std::uint8_t*>(
        av_mallocz(static_cast<std::size_t>(picture.size) + AV_INPUT_BUFFER_PADDING_SIZE));
    if (out.codecpar->extradata == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(out.codecpar->extradata, picture.data, static_cast<std::size_t>(picture.size));
    out.codecpar->extradata_size = picture.size;
    const char* mime = pictureMimeType(in.codecpar->codec_id);
    av_dict_set(&out.metadata, "mimetype", mime, 0);
    av_dict_set(&out.metadata, "filename",
                in.codecpar->codec_id == AV_CODEC_ID_PNG ? "cover.png" : "cover.jpg", 0);
    return true;
}

// A copy of `in` with its parameters, timing, tags, disposition and side
// data; its packets follow when `withPackets`.
void StreamCopy::copyStream(const AVStream& in, bool withPackets) {
    const AVCodecParameters& parameters = *in.codecpar;
    AVStream& out = newStream();
    check(avcodec_parameters_copy(out.codecpar, &parameters), "cannot pass video through");
    // Keep the source's tag (avc1 or hvc1, say) unless this container knows
    // the codec under another one.
    unsigned tag = 0;
    const AVCodecTag* const* tags = m_output.oformat->codec_tag;
    if (tags == nullptr || (av_codec_get_id(tags, parameters.codec_tag) != parameters.codec_id &&
                            av_codec_get_tag2(tags, parameters.codec_id, &tag) != 0)) {
        out.codecpar->codec_tag = 0;
    }
    out.time_base = in.time_base;
    out.avg_frame_rate = in.avg_frame_rate;
    out.r_frame_rate = in.r_frame_rate;
    out.sample_aspect_ratio = in.sample_aspect_ratio;
    out.disposition = in.disposition;
    check(av_dict_copy(&out.metadata, in.metadata, 0), "cannot pass video through");
    // The display matrix (rotation) and the like travel as side data.
    for (int i = 0; i < in.nb_side_data; ++i) {
        const AVPacketSideData& data = in.side_data[i];
        std::uint8_t* copy = av_stream_new_side_data(&out, data.type, data.size);
        if (copy == nullptr) {
            throw std::bad_alloc();
        }
        std::memcpy(copy, data.data, data.size);
    }
    if (withPackets) {
        m_outputStreamOf[static_cast<std::size_t>(in.index)] = out.index;
    }
}

void StreamCopy::copyChapters(const AVFormatContext& source) {
    if (source.nb_chapters == 0) {
        return;
    }
    if (!OutputFormat::holdsChapters(m_container)) {
        note("the chapters");
        return;
    }
    for (unsigned i = 0; i < source.nb_chapters; ++i) {
        const AVChapter& in = *source.chapters[i];
        auto* out = static_cast<AVChapter*>(av_mallocz(sizeof(AVChapter)));
        if (out == nullptr) {
            throw std::bad_alloc();
        }
        out->id = in.id;
        out->time_base = in.time_base;
        out->start = in.start;
        out->end = in.end;
        // The output context owns the chapter once it is in its list.
        if (av_dynarray_add_nofree(&m_output.chapters,
                                   reinterpret_cast<int*>(&m_output.nb_chapters), out) < 0) {
            av_free(out);
            throw std::bad_alloc();
        }
        check(av_dict_copy(&out->metadata, in.metadata, 0), "cannot copy the chapters");
    }
}

void StreamCopy::copyPackets(std::optional<std::int64_t> limit, int rate) {
    if (m_done) {
        return;
    }
    for (;;) {
        if (!m_pending) {
            const int read = av_read_frame(m_source.get(), m_packet.get());
            if (read == AVERROR_EOF) {
                m_done = true;
                return;
            }
            check(read, "cannot pass video through");
            // Streams that appear mid-file (MPEG-TS) were not chosen.
            const auto stream = static_cast<std::size_t>(m_packet->stream_index);
            if (stream >= m_outputStreamOf.size() || m_outputStreamOf[stream] < 0) {
                av_packet_unref(m_packet.get());
                continue;
            }
            m_pending = true;
        }
        AVPacket& packet = *m_packet;
        const AVStream& in = *m_source->streams[packet.stream_index];
        const std::int64_t stamp = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
        if (limit && stamp != AV_NOPTS_VALUE &&
            av_compare_ts(stamp, in.time_base, *limit, AVRational{1, rate}) > 0) {
            return; // kept for the next call
        }
        const int outIndex = m_outputStreamOf[static_cast<std::size_t>(packet.stream_index)];
        av_packet_rescale_ts(&packet, in.time_base, m_output.streams[outIndex]->time_base);
        packet.stream_index = outIndex;
        packet.pos = -1;
        m_pending = false;
        check(av_interleaved_write_frame(&m_output, &packet), "cannot pass video through");
    }
}

} // namespace ostrand
