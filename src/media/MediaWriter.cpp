#include "MediaWriter.h"

#include "AtomicFile.h"
#include "AvPtr.h"
#include "BlockPipe.h"
#include "MediaInput.h"
#include "OstrandError.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <exception>
#include <optional>
#include <set>
#include <system_error>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

namespace ostrand {

namespace {

// Blocks waiting between the caller and the encoding thread: enough to keep
// both busy, few enough that memory stays a few hundred kilobytes.
constexpr std::size_t pipeDepth = 4;
constexpr int ioBufferBytes = 1 << 16;
// Samples per encoded frame for codecs that take frames of any length.
constexpr int anyFrameSamples = 4096;
constexpr float pcm24FullScale = 8388608.0f; // 2^23

[[noreturn]] void fail(const std::string& message) {
    throw OstrandError::writerFailed(message);
}

void check(int result, const std::string& context) {
    if (result < 0) {
        fail(context.empty() ? avErrorText(result) : context + ": " + avErrorText(result));
    }
}

// pcm_s24le and 24-bit FLAC take 32-bit samples and keep their upper 24 bits.
std::int32_t toPcm24(float x) {
    const float clipped = std::isnan(x) ? 0.0f : std::clamp(x, -1.0f, 1.0f);
    const auto value = std::min(static_cast<std::int32_t>(std::lrint(clipped * pcm24FullScale)),
                                std::int32_t{8388607});
    return value * 256;
}

const char* encoderName(MediaWriter::Encoding encoding) {
    switch (encoding) {
    case MediaWriter::Encoding::aac:
        return "aac";
    case MediaWriter::Encoding::opus:
        return "libopus";
    case MediaWriter::Encoding::pcm24:
        return "pcm_s24le";
    case MediaWriter::Encoding::flac:
        return "flac";
    }
    return "aac";
}

AVSampleFormat sampleFormat(MediaWriter::Encoding encoding) {
    switch (encoding) {
    case MediaWriter::Encoding::aac:
        return AV_SAMPLE_FMT_FLTP;
    case MediaWriter::Encoding::opus:
        return AV_SAMPLE_FMT_FLT;
    case MediaWriter::Encoding::pcm24:
    case MediaWriter::Encoding::flac:
        return AV_SAMPLE_FMT_S32;
    }
    return AV_SAMPLE_FMT_FLTP;
}

// FFmpeg writes through these into the unnamed file.
int writeToFile(void* opaque, std::uint8_t* data, int size) {
    const int fd = static_cast<AtomicFile*>(opaque)->descriptor();
    int left = size;
    while (left > 0) {
        const ssize_t written = ::write(fd, data, static_cast<std::size_t>(left));
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return AVERROR(errno);
        }
        data += written;
        left -= static_cast<int>(written);
    }
    return size;
}

std::int64_t seekInFile(void* opaque, std::int64_t offset, int whence) {
    const int fd = static_cast<AtomicFile*>(opaque)->descriptor();
    if ((whence & AVSEEK_SIZE) != 0) {
        struct stat info {};
        return ::fstat(fd, &info) == 0 ? static_cast<std::int64_t>(info.st_size) : AVERROR(errno);
    }
    const off_t position = ::lseek(fd, static_cast<off_t>(offset), whence & ~AVSEEK_FORCE);
    return position < 0 ? AVERROR(errno) : static_cast<std::int64_t>(position);
}

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

class MediaWriter::Impl {
public:
    Impl(std::filesystem::path url, OutputNaming::ExistingFile existing, FileType fileType,
         double sampleRate, std::int64_t channels, Encoding encoding, const MediaAsset& asset,
         const std::vector<MediaAsset::VideoTrack>& videoTracks, bool keepOtherStreams)
        : m_url(std::move(url))
        , m_existing(existing)
        , m_fileType(fileType)
        , m_encoding(encoding)
        , m_sourceURL(asset.url) {
        if (replacesSource(m_url)) {
            fail("the output would replace the source file");
        }
        if (!(sampleRate >= 1.0 && sampleRate <= INT_MAX) || channels < 1 || channels > 8) {
            fail("cannot add audio input: unsupported format");
        }
        m_rate = static_cast<int>(std::lround(sampleRate));
        m_channels = static_cast<int>(channels);
        try {
            m_file.emplace(m_url.parent_path(), AtomicFile::permissionsLike(m_sourceURL));
        } catch (const std::system_error& error) {
            fail(error.what());
        }
        open(asset, videoTracks, keepOtherStreams);
        m_pipe.emplace(static_cast<std::size_t>(m_channels), pipeDepth);
        m_thread = std::thread([this] { encodeQueuedBlocks(); });
    }

    ~Impl() { cancel(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    const std::filesystem::path& url() const noexcept { return m_url; }

    const LoudnessFigures& measured() const {
        if (!m_measured) {
            fail("the file is not complete");
        }
        return *m_measured;
    }
    const std::vector<std::string>& notes() const noexcept { return m_notes; }

    void setURL(std::filesystem::path url) {
        if (m_state != State::open && m_state != State::completed) {
            fail("the file is already closed");
        }
        if (replacesSource(url)) {
            fail("the output would replace the source file");
        }
        m_url = std::move(url);
    }

    void append(std::span<const float* const> planar, std::int64_t count, MediaTime at) {
        if (m_state != State::open) {
            fail("the file is already closed");
        }
        if (count < 1) {
            return;
        }
        if (planar.size() < static_cast<std::size_t>(m_channels)) {
            fail("the audio has fewer channels than the file");
        }
        m_pipe->push(planar.first(static_cast<std::size_t>(m_channels)), count, at);
    }

    void complete() {
        if (m_state != State::open) {
            fail("the file is already closed");
        }
        m_pipe->close();
        joinThread();
        if (m_threadError) {
            std::rethrow_exception(m_threadError);
        }
        encodeFromFifo(av_audio_fifo_size(m_fifo.get()));
        sendFrame(nullptr);
        if (m_decoder) {
            decodeForMeter(nullptr);
        }
        m_measured = m_meter->figures();
        copyPackets(std::nullopt);
        check(av_write_trailer(m_output.get()), "finishWriting failed");
        avio_flush(m_output->pb);
        check(m_output->pb->error, "finishWriting failed");
        close();
        m_state = State::completed;
    }

    void finish() {
        if (m_state == State::open) {
            complete();
        }
        if (m_state != State::completed) {
            fail("the file is already closed");
        }
        commit();
        m_state = State::finished;
    }

    void cancel() noexcept {
        if (m_state != State::open && m_state != State::completed) {
            return;
        }
        if (m_pipe) {
            m_pipe->abandon();
        }
        joinThread();
        close();
        m_file.reset();
        m_state = State::cancelled;
    }

private:
    enum class State { open, completed, finished, cancelled };

    bool isVideoContainer() const {
        return m_fileType == FileType::mpeg4 || m_fileType == FileType::quickTimeMovie ||
               m_fileType == FileType::matroska || m_fileType == FileType::webm ||
               m_fileType == FileType::mpegTS;
    }

    bool replacesSource(const std::filesystem::path& url) const {
        std::error_code ignored;
        return std::filesystem::equivalent(url, m_sourceURL, ignored);
    }

    void commit() {
        try {
            if (m_existing == OutputNaming::ExistingFile::replace) {
                // Checked again: the source may have been moved here meanwhile.
                if (replacesSource(m_url)) {
                    fail("the output would replace the source file");
                }
                m_file->commitReplacing(m_url);
            } else if (m_existing == OutputNaming::ExistingFile::refuse) {
                if (!m_file->commitNew(m_url)) {
                    throw OstrandError::exportFailed(m_url.string() + " exists");
                }
            } else {
                const std::filesystem::path first = m_url;
                m_url = m_file->commitUnique(
                    [&](int number) { return OutputNaming::numberedLocation(first, number); });
            }
        } catch (const std::system_error& error) {
            fail(error.what());
        }
        m_file.reset();
    }

    void open(const MediaAsset& asset, const std::vector<MediaAsset::VideoTrack>& videoTracks,
              bool keepOtherStreams) {
        silenceFfmpegLog();
        AVFormatContext* raw = nullptr;
        check(avformat_alloc_output_context2(&raw, nullptr, OutputFormat::muxerName(m_fileType),
                                             nullptr),
              "cannot create the file");
        m_output.reset(raw);
        for (const auto& [key, value] : asset.metadata) {
            av_dict_set(&m_output->metadata, key.c_str(), value.c_str(), 0);
        }
        if (!videoTracks.empty() || keepOtherStreams) {
            addCopiedStreams(asset, videoTracks, keepOtherStreams);
        }
        addAudioStream();
        attachFile();
        AVDictionary* options = nullptr;
        if (m_fileType == FileType::wave) {
            // Switches to RF64 only if the file outgrows the 4 GiB of WAVE.
            av_dict_set(&options, "rf64", "auto", 0);
        }
        const int written = avformat_write_header(m_output.get(), &options);
        av_dict_free(&options);
        check(written, "");
    }

    void attachFile() {
        auto* buffer = static_cast<unsigned char*>(av_malloc(ioBufferBytes));
        if (buffer == nullptr) {
            throw std::bad_alloc();
        }
        AVIOContext* io = avio_alloc_context(buffer, ioBufferBytes, 1, &*m_file, nullptr,
                                             writeToFile, seekInFile);
        if (io == nullptr) {
            av_free(buffer);
            throw std::bad_alloc();
        }
        m_io.reset(io);
        m_output->pb = io;
        m_output->flags |= AVFMT_FLAG_CUSTOM_IO;
    }

    void addAudioStream() {
        const AVCodec* codec = avcodec_find_encoder_by_name(encoderName(m_encoding));
        if (codec == nullptr ||
            avformat_query_codec(m_output->oformat, codec->id, FF_COMPLIANCE_NORMAL) == 0) {
            fail("cannot add audio input");
        }
        if (codec->supported_samplerates != nullptr) {
            bool supported = false;
            for (const int* rate = codec->supported_samplerates; *rate != 0; ++rate) {
                supported = supported || *rate == m_rate;
            }
            if (!supported) {
                fail(std::string("cannot add audio input: ") + codec->long_name +
                     " does not support a sample rate of " + std::to_string(m_rate) + " Hz");
            }
        }
        m_encoder.reset(avcodec_alloc_context3(codec));
        if (!m_encoder) {
            throw std::bad_alloc();
        }
        AVCodecContext& encoder = *m_encoder;
        encoder.sample_fmt = sampleFormat(m_encoding);
        encoder.sample_rate = m_rate;
        av_channel_layout_default(&encoder.ch_layout, m_channels);
        encoder.time_base = AVRational{1, m_rate};
        encoder.bit_rate = OutputFormat::bitRate(m_encoding, m_channels);
        if (encoder.sample_fmt == AV_SAMPLE_FMT_S32) {
            encoder.bits_per_raw_sample = 24;
        }
        if ((m_output->oformat->flags & AVFMT_GLOBALHEADER) != 0) {
            encoder.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        }
        check(avcodec_open2(&encoder, codec, nullptr), "cannot add audio input");

        m_audioStream = avformat_new_stream(m_output.get(), nullptr);
        if (m_audioStream == nullptr) {
            fail("cannot add audio input");
        }
        m_audioStream->time_base = encoder.time_base;
        check(avcodec_parameters_from_context(m_audioStream->codecpar, &encoder),
              "cannot add audio input");
        openOutputMeter();
        for (const char* key : {"language", "title"}) {
            if (!m_audioTags.empty() && m_audioTags.count(key) != 0) {
                av_dict_set(&m_audioStream->metadata, key, m_audioTags.at(key).c_str(), 0);
            }
        }

        m_frame = allocateFrame();
        m_packet = allocatePacket();
        const bool fixedFrames =
            encoder.frame_size > 0 && (codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) == 0;
        m_frameSamples = fixedFrames ? encoder.frame_size : anyFrameSamples;
        m_fifo.reset(av_audio_fifo_alloc(encoder.sample_fmt, m_channels, m_frameSamples));
        if (!m_fifo) {
            throw std::bad_alloc();
        }
        prepareFrame(m_frameSamples);
    }

    void openOutputMeter() {
        m_meter.emplace(
            static_cast<double>(m_rate),
            std::vector<ChannelWeight>(static_cast<std::size_t>(m_channels), ChannelWeight::front));
        m_meterInput.resize(static_cast<std::size_t>(m_channels));
        if (!MediaWriter::isLossy(m_encoding)) {
            return;
        }
        const AVCodec* codec = avcodec_find_decoder(m_audioStream->codecpar->codec_id);
        if (codec == nullptr) {
            fail("cannot add audio input: no decoder to measure it");
        }
        m_decoder.reset(avcodec_alloc_context3(codec));
        if (!m_decoder) {
            throw std::bad_alloc();
        }
        check(avcodec_parameters_to_context(m_decoder.get(), m_audioStream->codecpar),
              "cannot add audio input");
        m_decoder->pkt_timebase = m_encoder->time_base;
        m_decoder->request_sample_fmt = AV_SAMPLE_FMT_FLTP;
        check(avcodec_open2(m_decoder.get(), codec, nullptr), "cannot add audio input");
        m_decoded = allocateFrame();
    }

    // Decodes a packet just encoded (nullptr: the end) into the meter.
    void decodeForMeter(const AVPacket* packet) {
        const int sent = avcodec_send_packet(m_decoder.get(), packet);
        if (sent != AVERROR_EOF) {
            check(sent, "cannot measure the output");
        }
        for (;;) {
            const int received = avcodec_receive_frame(m_decoder.get(), m_decoded.get());
            if (received == AVERROR(EAGAIN) || received == AVERROR_EOF) {
                return;
            }
            check(received, "cannot measure the output");
            meterDecoded(*m_decoded);
            av_frame_unref(m_decoded.get());
        }
    }

    void meterDecoded(const AVFrame& frame) {
        const int count = frame.nb_samples;
        if (frame.ch_layout.nb_channels != m_channels) {
            fail("cannot measure the output: the decoder gave another channel count");
        }
        if (frame.format == AV_SAMPLE_FMT_FLTP) {
            for (int c = 0; c < m_channels; ++c) {
                m_meterInput[static_cast<std::size_t>(c)] =
                    reinterpret_cast<const float*>(frame.extended_data[c]);
            }
        } else if (frame.format == AV_SAMPLE_FMT_FLT) {
            const auto* in = reinterpret_cast<const float*>(frame.extended_data[0]);
            m_meterPlanar.resize(static_cast<std::size_t>(count) *
                                 static_cast<std::size_t>(m_channels));
            for (int c = 0; c < m_channels; ++c) {
                float* out = m_meterPlanar.data() + static_cast<std::ptrdiff_t>(c) * count;
                for (int i = 0; i < count; ++i) {
                    out[i] = in[i * m_channels + c];
                }
                m_meterInput[static_cast<std::size_t>(c)] = out;
            }
        } else {
            fail("cannot measure the output: the decoder gave an unexpected sample format");
        }
        m_meter->append(m_meterInput, count);
    }

    void note(const std::string& what) {
        const std::string text =
            what + " cannot be kept in " + OutputFormat::displayName(m_fileType);
        if (std::find(m_notes.begin(), m_notes.end(), text) == m_notes.end()) {
            m_notes.push_back(text);
        }
    }

    // Video tracks (which must be kept) and, with keepOthers, the streams a
    // listener does not hear but a viewer expects: subtitles, cover art,
    // attachments, data, chapters.
    void addCopiedStreams(const MediaAsset& asset,
                          const std::vector<MediaAsset::VideoTrack>& videoTracks, bool keepOthers) {
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
            if (!muxerTakes(*m_output->oformat, in.codecpar->codec_id, sourceFormat)) {
                const std::string video =
                    std::string("the video (") + avcodec_get_name(in.codecpar->codec_id) + ")";
                // A video file must keep its picture; an audio format that
                // happens to carry one says so and goes on.
                if (isVideoContainer()) {
                    fail("cannot pass video through: " + video + " cannot be kept in " +
                         OutputFormat::displayName(m_fileType));
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
        m_copyPacket = allocatePacket();
    }

    bool addOtherStream(const AVStream& in, const char* sourceFormat) {
        const AVCodecParameters& parameters = *in.codecpar;
        const bool picture = parameters.codec_type == AVMEDIA_TYPE_VIDEO;
        const bool matroska = m_fileType == FileType::matroska || m_fileType == FileType::webm;
        if (picture) {
            if (!isPicture(parameters.codec_id)) {
                return false;
            }
            if (m_fileType == FileType::matroska) {
                return addPictureAttachment(in);
            }
            if (m_fileType == FileType::mpeg4 || m_fileType == FileType::quickTimeMovie ||
                m_fileType == FileType::appleM4A || m_fileType == FileType::flac) {
                copyStream(in);
                return true;
            }
            return false;
        }
        if (parameters.codec_type == AVMEDIA_TYPE_ATTACHMENT) {
            if (m_fileType != FileType::matroska) {
                return false;
            }
            copyStream(in, false);
            return true;
        }
        if (parameters.codec_id == AV_CODEC_ID_NONE ||
            (matroska && parameters.codec_type == AVMEDIA_TYPE_DATA) ||
            !muxerTakes(*m_output->oformat, parameters.codec_id, sourceFormat)) {
            return false;
        }
        copyStream(in);
        return true;
    }

    AVStream& newStream() {
        AVStream* out = avformat_new_stream(m_output.get(), nullptr);
        if (out == nullptr) {
            throw std::bad_alloc();
        }
        return *out;
    }

    // Matroska keeps cover art as an attached file, which readers show as
    // the cover again.
    bool addPictureAttachment(const AVStream& in) {
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
    void copyStream(const AVStream& in, bool withPackets = true) {
        const AVCodecParameters& parameters = *in.codecpar;
        AVStream& out = newStream();
        check(avcodec_parameters_copy(out.codecpar, &parameters), "cannot pass video through");
        // Keep the source's tag (avc1 or hvc1, say) unless this container
        // knows the codec under another one.
        unsigned tag = 0;
        const AVCodecTag* const* tags = m_output->oformat->codec_tag;
        if (tags == nullptr ||
            (av_codec_get_id(tags, parameters.codec_tag) != parameters.codec_id &&
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

    void copyChapters(const AVFormatContext& source) {
        if (source.nb_chapters == 0) {
            return;
        }
        if (!OutputFormat::holdsChapters(m_fileType)) {
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
            if (av_dynarray_add_nofree(&m_output->chapters,
                                       reinterpret_cast<int*>(&m_output->nb_chapters), out) < 0) {
                av_free(out);
                throw std::bad_alloc();
            }
            check(av_dict_copy(&out->metadata, in.metadata, 0), "cannot copy the chapters");
        }
    }

    void prepareFrame(int samples) {
        av_frame_unref(m_frame.get());
        m_frame->format = m_encoder->sample_fmt;
        m_frame->sample_rate = m_rate;
        check(av_channel_layout_copy(&m_frame->ch_layout, &m_encoder->ch_layout), "");
        m_frame->nb_samples = samples;
        check(av_frame_get_buffer(m_frame.get(), 0), "");
        m_frameCapacity = samples;
    }

    // The encoder may still hold the previous frame's buffer.
    void makeFrameWritable(int samples) {
        if (samples > m_frameCapacity) {
            prepareFrame(samples);
            return;
        }
        m_frame->nb_samples = m_frameCapacity;
        check(av_frame_make_writable(m_frame.get()), "");
        m_frame->nb_samples = samples;
    }

    void encodeQueuedBlocks() noexcept {
        try {
            while (m_pipe->pop([this](std::span<float* const> planar, std::int64_t count,
                                      MediaTime at) { encode(planar, count, at); })) {
            }
        } catch (...) {
            try {
                throw;
            } catch (const OstrandError&) {
                m_threadError = std::current_exception();
            } catch (const std::bad_alloc&) {
                m_threadError = std::make_exception_ptr(
                    OstrandError::writerFailed("there is not enough memory"));
            } catch (const std::exception& other) {
                m_threadError = std::make_exception_ptr(OstrandError::writerFailed(other.what()));
            } catch (...) {
                m_threadError =
                    std::make_exception_ptr(OstrandError::writerFailed("unknown error"));
            }
            m_pipe->abandon(m_threadError);
        }
    }

    // Converts a block to the encoder's sample format, into the FIFO that
    // cuts it into the encoder's frames.
    void encode(std::span<float* const> planar, std::int64_t count64, MediaTime at) {
        if (!m_nextPts) {
            m_nextPts = av_rescale_q(at.value, AVRational{1, at.timescale}, AVRational{1, m_rate});
        }
        const auto count = static_cast<int>(count64);
        void* planes[8] = {};
        const AVSampleFormat format = m_encoder->sample_fmt;
        if (format == AV_SAMPLE_FMT_FLTP) {
            for (int c = 0; c < m_channels; ++c) {
                planes[c] = planar[static_cast<std::size_t>(c)];
            }
        } else {
            m_interleaved.resize(static_cast<std::size_t>(count) *
                                 static_cast<std::size_t>(m_channels));
            for (int c = 0; c < m_channels; ++c) {
                const float* in = planar[static_cast<std::size_t>(c)];
                for (int i = 0; i < count; ++i) {
                    const auto slot = static_cast<std::size_t>(i * m_channels + c);
                    if (format == AV_SAMPLE_FMT_S32) {
                        const std::int32_t value = toPcm24(in[i]);
                        std::memcpy(&m_interleaved[slot], &value, sizeof value);
                    } else {
                        m_interleaved[slot] = in[i];
                    }
                }
            }
            planes[0] = m_interleaved.data();
        }
        if (!m_decoder) {
            std::copy(planar.begin(), planar.end(), m_meterInput.begin());
            m_meter->append(m_meterInput, count);
        }
        const int written = av_audio_fifo_write(m_fifo.get(), planes, count);
        if (written < count) {
            check(written < 0 ? written : AVERROR(ENOMEM), "");
        }
        while (av_audio_fifo_size(m_fifo.get()) >= m_frameSamples) {
            encodeFromFifo(m_frameSamples);
        }
        copyPackets(*m_nextPts);
    }

    void encodeFromFifo(int samples) {
        if (samples <= 0) {
            return;
        }
        makeFrameWritable(samples);
        const int read =
            av_audio_fifo_read(m_fifo.get(), reinterpret_cast<void**>(m_frame->data), samples);
        if (read < samples) {
            check(read < 0 ? read : AVERROR_BUG, "");
        }
        m_frame->pts = m_nextPts.value_or(0);
        m_nextPts = m_frame->pts + samples;
        sendFrame(m_frame.get());
    }

    // Sends a frame (nullptr: the end) and writes every packet that comes out.
    void sendFrame(const AVFrame* frame) {
        const int sent = avcodec_send_frame(m_encoder.get(), frame);
        if (sent != AVERROR_EOF) {
            check(sent, "");
        }
        for (;;) {
            const int received = avcodec_receive_packet(m_encoder.get(), m_packet.get());
            if (received == AVERROR(EAGAIN) || received == AVERROR_EOF) {
                return;
            }
            check(received, "");
            if (m_decoder) {
                decodeForMeter(m_packet.get());
            }
            av_packet_rescale_ts(m_packet.get(), m_encoder->time_base, m_audioStream->time_base);
            m_packet->stream_index = m_audioStream->index;
            // Takes the packet's data; the packet is blank afterwards.
            check(av_interleaved_write_frame(m_output.get(), m_packet.get()), "");
        }
    }

    // Copies source packets of the kept streams up to `limit` (in samples of
    // the audio rate), or all that are left.
    void copyPackets(std::optional<std::int64_t> limit) {
        if (!m_source || m_copyDone) {
            return;
        }
        for (;;) {
            if (!m_copyPending) {
                const int read = av_read_frame(m_source.get(), m_copyPacket.get());
                if (read == AVERROR_EOF) {
                    m_copyDone = true;
                    return;
                }
                check(read, "cannot pass video through");
                // Streams that appear mid-file (MPEG-TS) were not chosen.
                const auto stream = static_cast<std::size_t>(m_copyPacket->stream_index);
                if (stream >= m_outputStreamOf.size() || m_outputStreamOf[stream] < 0) {
                    av_packet_unref(m_copyPacket.get());
                    continue;
                }
                m_copyPending = true;
            }
            AVPacket& packet = *m_copyPacket;
            const AVStream& in = *m_source->streams[packet.stream_index];
            const std::int64_t stamp = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
            if (limit && stamp != AV_NOPTS_VALUE &&
                av_compare_ts(stamp, in.time_base, *limit, AVRational{1, m_rate}) > 0) {
                return; // kept for the next call
            }
            const int outIndex = m_outputStreamOf[static_cast<std::size_t>(packet.stream_index)];
            av_packet_rescale_ts(&packet, in.time_base, m_output->streams[outIndex]->time_base);
            packet.stream_index = outIndex;
            packet.pos = -1;
            m_copyPending = false;
            check(av_interleaved_write_frame(m_output.get(), &packet), "cannot pass video through");
        }
    }

    void joinThread() noexcept {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

    void close() noexcept {
        m_output.reset();
        m_io.reset();
        m_source.reset();
    }

    std::filesystem::path m_url;
    OutputNaming::ExistingFile m_existing;
    FileType m_fileType;
    Encoding m_encoding;
    std::filesystem::path m_sourceURL;
    int m_rate = 0;
    int m_channels = 0;
    State m_state = State::open;
    std::vector<std::string> m_notes;
    std::map<std::string, std::string> m_audioTags;

    // Used by the encoding thread while it runs, by the caller otherwise.
    std::optional<AtomicFile> m_file;
    IoContextPtr m_io;
    OutputContextPtr m_output;
    CodecContextPtr m_encoder;
    AVStream* m_audioStream = nullptr;
    FifoPtr m_fifo;
    int m_frameSamples = 0;
    std::vector<float> m_interleaved; // 32-bit samples, float or integer
    FramePtr m_frame;
    int m_frameCapacity = 0;
    PacketPtr m_packet;
    std::optional<std::int64_t> m_nextPts; // of the next sample to encode
    InputContextPtr m_source;
    std::vector<int> m_outputStreamOf;
    PacketPtr m_copyPacket;
    bool m_copyPending = false;
    bool m_copyDone = false;
    // The output meter; lossy codecs decode their own packets into it.
    std::optional<LoudnessMeter> m_meter;
    CodecContextPtr m_decoder;
    FramePtr m_decoded;
    std::vector<const float*> m_meterInput;
    std::vector<float> m_meterPlanar; // a decoded interleaved frame, one channel after another
    std::optional<LoudnessFigures> m_measured;
    std::exception_ptr m_threadError; // read after the thread is joined

    std::optional<BlockPipe> m_pipe;
    std::thread m_thread;
};

MediaWriter::MediaWriter(std::filesystem::path url, OutputNaming::ExistingFile existing,
                         FileType fileType, double sampleRate, std::int64_t channels,
                         Encoding encoding, const MediaAsset& asset,
                         std::vector<MediaAsset::VideoTrack> videoTracks, bool keepOtherStreams)
    : m_impl(std::make_unique<Impl>(std::move(url), existing, fileType, sampleRate, channels,
                                    encoding, asset, videoTracks, keepOtherStreams)) {}

MediaWriter::~MediaWriter() = default;

void MediaWriter::appendAudio(std::span<const float* const> planar, std::int64_t count,
                              MediaTime at) {
    m_impl->append(planar, count, at);
}

void MediaWriter::setURL(std::filesystem::path url) {
    m_impl->setURL(std::move(url));
}

void MediaWriter::complete() {
    m_impl->complete();
}

void MediaWriter::finish() {
    m_impl->finish();
}

void MediaWriter::cancel() noexcept {
    m_impl->cancel();
}

const std::filesystem::path& MediaWriter::url() const noexcept {
    return m_impl->url();
}

const LoudnessFigures& MediaWriter::measured() const {
    return m_impl->measured();
}

bool MediaWriter::isLossy(Encoding encoding) noexcept {
    return encoding == Encoding::aac || encoding == Encoding::opus;
}

const std::vector<std::string>& MediaWriter::notes() const noexcept {
    return m_impl->notes();
}

} // namespace ostrand
