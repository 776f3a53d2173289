#include "MediaWriter.h"

#include "AvPtr.h"
#include "MediaInput.h"
#include "OstrandError.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

namespace ostrand {

namespace {

// Blocks waiting between the caller and the encoding thread: enough to keep
// both busy, few enough that memory stays a few hundred kilobytes.
constexpr std::size_t queueDepth = 4;

constexpr std::int64_t aacStereoBitRate = 256000;
constexpr std::int64_t aacMonoBitRate = 160000;
constexpr float pcm24FullScale = 8388608.0f; // 2^23

const char* muxerName(FileType fileType) {
    switch (fileType) {
    case FileType::mpeg4:
        return "mp4";
    case FileType::quickTimeMovie:
        return "mov";
    case FileType::appleM4A:
        return "ipod";
    case FileType::wave:
        return "wav";
    }
    return "mp4";
}

[[noreturn]] void fail(const std::string& message) {
    throw OstrandError::writerFailed(message);
}

void check(int result, const std::string& context) {
    if (result < 0) {
        fail(context.empty() ? avErrorText(result) : context + ": " + avErrorText(result));
    }
}

// pcm_s24le takes 32-bit samples and keeps their upper 24 bits.
std::int32_t toPcm24(float x) {
    const float clipped = std::isnan(x) ? 0.0f : std::clamp(x, -1.0f, 1.0f);
    const auto value = std::min(static_cast<std::int32_t>(std::lrint(clipped * pcm24FullScale)),
                                std::int32_t{8388607});
    return value * 256;
}

} // namespace

class MediaWriter::Impl {
public:
    Impl(std::filesystem::path url, FileType fileType, double sampleRate, std::int64_t channels,
         Encoding encoding, const MediaAsset& asset,
         const std::vector<MediaAsset::VideoTrack>& videoTracks)
        : m_url(std::move(url))
        , m_encoding(encoding) {
        std::error_code ignored;
        if (std::filesystem::equivalent(m_url, asset.url, ignored)) {
            fail("the output would replace the source file");
        }
        if (!(sampleRate >= 1.0 && sampleRate <= INT_MAX) || channels < 1 || channels > 8) {
            fail("cannot add audio input: unsupported format");
        }
        m_rate = static_cast<int>(std::lround(sampleRate));
        m_channels = static_cast<int>(channels);
        std::filesystem::remove(m_url, ignored);
        try {
            open(fileType, asset, videoTracks);
        } catch (...) {
            close();
            std::filesystem::remove(m_url, ignored);
            throw;
        }
        m_thread = std::thread([this] { encodeQueuedBlocks(); });
    }

    ~Impl() { cancel(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    const std::filesystem::path& url() const noexcept { return m_url; }

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
        Block* slot = nullptr;
        {
            std::unique_lock lock(m_mutex);
            m_changed.wait(lock, [&] { return m_queued < queueDepth || m_error; });
            rethrowWorkerError();
            slot = &m_slots[(m_head + m_queued) % queueDepth];
        }
        // The slot is invisible to the encoding thread until it is counted.
        slot->samples.resize(static_cast<std::size_t>(m_channels));
        for (std::size_t c = 0; c < slot->samples.size(); ++c) {
            auto& samples = slot->samples[c];
            if (samples.size() < static_cast<std::size_t>(count)) {
                samples.resize(static_cast<std::size_t>(count));
            }
            std::copy_n(planar[c], count, samples.begin());
        }
        slot->count = count;
        slot->at = at;
        {
            std::lock_guard lock(m_mutex);
            ++m_queued;
        }
        m_changed.notify_all();
    }

    void finish() {
        if (m_state != State::open) {
            fail("the file is already closed");
        }
        stopThread(false);
        rethrowWorkerError();
        if (m_encoding == Encoding::aac) {
            encodeFromFifo(av_audio_fifo_size(m_fifo.get()));
        }
        sendFrame(nullptr);
        copyVideo(std::nullopt);
        check(av_write_trailer(m_output.get()), "finishWriting failed");
        if (m_output->pb != nullptr) {
            avio_flush(m_output->pb);
            check(m_output->pb->error, "finishWriting failed");
            check(avio_closep(&m_output->pb), "finishWriting failed");
        }
        close();
        m_state = State::finished;
    }

    void cancel() noexcept {
        if (m_state != State::open) {
            return;
        }
        stopThread(true);
        close();
        std::error_code ignored;
        std::filesystem::remove(m_url, ignored);
        m_state = State::cancelled;
    }

private:
    enum class State { open, finished, cancelled };

    struct Block {
        std::vector<std::vector<float>> samples;
        std::int64_t count = 0;
        MediaTime at;
    };

    void open(FileType fileType, const MediaAsset& asset,
              const std::vector<MediaAsset::VideoTrack>& videoTracks) {
        silenceFfmpegLog();
        AVFormatContext* raw = nullptr;
        const std::string target = fileUrl(m_url);
        check(avformat_alloc_output_context2(&raw, nullptr, muxerName(fileType), target.c_str()),
              "cannot create the file");
        m_output.reset(raw);
        for (const auto& [key, value] : asset.metadata) {
            av_dict_set(&m_output->metadata, key.c_str(), value.c_str(), 0);
        }
        if (!videoTracks.empty()) {
            addVideoStreams(asset, videoTracks);
        }
        addAudioStream();
        if ((m_output->oformat->flags & AVFMT_NOFILE) == 0) {
            check(avio_open(&m_output->pb, target.c_str(), AVIO_FLAG_WRITE),
                  "cannot create the file");
        }
        AVDictionary* options = nullptr;
        if (fileType == FileType::wave) {
            // Switches to RF64 only if the file outgrows the 4 GiB of WAVE.
            av_dict_set(&options, "rf64", "auto", 0);
        }
        const int written = avformat_write_header(m_output.get(), &options);
        av_dict_free(&options);
        check(written, "");
    }

    void addAudioStream() {
        const bool aac = m_encoding == Encoding::aac;
        const AVCodec* codec =
            aac ? avcodec_find_encoder_by_name("aac") : avcodec_find_encoder(AV_CODEC_ID_PCM_S24LE);
        if (codec == nullptr ||
            avformat_query_codec(m_output->oformat, codec->id, FF_COMPLIANCE_NORMAL) == 0) {
            fail("cannot add audio input");
        }
        if (aac && codec->supported_samplerates != nullptr) {
            bool supported = false;
            for (const int* rate = codec->supported_samplerates; *rate != 0; ++rate) {
                supported = supported || *rate == m_rate;
            }
            if (!supported) {
                fail("cannot add audio input: AAC does not support a sample rate of " +
                     std::to_string(m_rate) + " Hz");
            }
        }
        m_encoder.reset(avcodec_alloc_context3(codec));
        if (!m_encoder) {
            throw std::bad_alloc();
        }
        AVCodecContext& encoder = *m_encoder;
        encoder.sample_fmt = aac ? AV_SAMPLE_FMT_FLTP : AV_SAMPLE_FMT_S32;
        encoder.sample_rate = m_rate;
        av_channel_layout_default(&encoder.ch_layout, m_channels);
        encoder.time_base = AVRational{1, m_rate};
        if (aac) {
            encoder.bit_rate = m_channels >= 2 ? aacStereoBitRate : aacMonoBitRate;
        } else {
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

        m_frame = allocateFrame();
        m_packet = allocatePacket();
        if (aac) {
            m_fifo.reset(av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, m_channels, encoder.frame_size));
            if (!m_fifo) {
                throw std::bad_alloc();
            }
            prepareFrame(encoder.frame_size);
        }
    }

    void addVideoStreams(const MediaAsset& asset,
                         const std::vector<MediaAsset::VideoTrack>& videoTracks) {
        try {
            m_source = openMediaInput(asset.url);
        } catch (const OstrandError& error) {
            fail("cannot start video reader: " + error.message());
        }
        m_outputStreamOf.assign(m_source->nb_streams, -1);
        for (const auto& track : videoTracks) {
            if (track.streamIndex < 0 ||
                static_cast<unsigned>(track.streamIndex) >= m_source->nb_streams) {
                fail("cannot read video track");
            }
            const AVStream& in = *m_source->streams[track.streamIndex];
            const AVCodecParameters& parameters = *in.codecpar;
            if (parameters.codec_type != AVMEDIA_TYPE_VIDEO ||
                avformat_query_codec(m_output->oformat, parameters.codec_id,
                                     FF_COMPLIANCE_NORMAL) == 0) {
                fail("cannot pass video through");
            }
            AVStream* out = avformat_new_stream(m_output.get(), nullptr);
            if (out == nullptr) {
                fail("cannot pass video through");
            }
            check(avcodec_parameters_copy(out->codecpar, &parameters), "cannot pass video through");
            // Keep the source's tag (avc1 or hvc1, say) unless this container
            // knows the codec under another one.
            unsigned tag = 0;
            const AVCodecTag* const* tags = m_output->oformat->codec_tag;
            if (tags != nullptr &&
                av_codec_get_id(tags, parameters.codec_tag) != parameters.codec_id &&
                av_codec_get_tag2(tags, parameters.codec_id, &tag) != 0) {
                out->codecpar->codec_tag = 0;
            }
            out->time_base = in.time_base;
            out->avg_frame_rate = in.avg_frame_rate;
            out->r_frame_rate = in.r_frame_rate;
            out->sample_aspect_ratio = in.sample_aspect_ratio;
            out->disposition = in.disposition;
            check(av_dict_copy(&out->metadata, in.metadata, 0), "cannot pass video through");
            // The display matrix (rotation) and the like travel as side data.
            for (int i = 0; i < in.nb_side_data; ++i) {
                const AVPacketSideData& data = in.side_data[i];
                std::uint8_t* copy = av_stream_new_side_data(out, data.type, data.size);
                if (copy == nullptr) {
                    throw std::bad_alloc();
                }
                std::memcpy(copy, data.data, data.size);
            }
            m_outputStreamOf[static_cast<std::size_t>(track.streamIndex)] = out->index;
        }
        for (unsigned i = 0; i < m_source->nb_streams; ++i) {
            if (m_outputStreamOf[i] < 0) {
                m_source->streams[i]->discard = AVDISCARD_ALL;
            }
        }
        m_videoPacket = allocatePacket();
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
            for (;;) {
                Block* block = nullptr;
                {
                    std::unique_lock lock(m_mutex);
                    m_changed.wait(lock, [&] { return m_queued > 0 || m_closing || m_stopping; });
                    if (m_stopping || m_queued == 0) {
                        return;
                    }
                    block = &m_slots[m_head];
                }
                encode(*block);
                {
                    std::lock_guard lock(m_mutex);
                    m_head = (m_head + 1) % queueDepth;
                    --m_queued;
                }
                m_changed.notify_all();
            }
        } catch (...) {
            std::exception_ptr error;
            try {
                throw;
            } catch (const OstrandError&) {
                error = std::current_exception();
            } catch (const std::exception& other) {
                error = std::make_exception_ptr(OstrandError::writerFailed(other.what()));
            } catch (...) {
                error = std::make_exception_ptr(OstrandError::writerFailed("unknown error"));
            }
            {
                std::lock_guard lock(m_mutex);
                m_error = error;
            }
            m_changed.notify_all();
        }
    }

    void encode(const Block& block) {
        if (!m_nextPts) {
            m_nextPts = av_rescale_q(block.at.value, AVRational{1, block.at.timescale},
                                     AVRational{1, m_rate});
        }
        const auto count = static_cast<int>(block.count);
        if (m_encoding == Encoding::aac) {
            void* planes[8] = {};
            for (int c = 0; c < m_channels; ++c) {
                planes[c] = const_cast<float*>(block.samples[static_cast<std::size_t>(c)].data());
            }
            const int written = av_audio_fifo_write(m_fifo.get(), planes, count);
            if (written < count) {
                check(written < 0 ? written : AVERROR(ENOMEM), "");
            }
            const int frameSize = m_encoder->frame_size;
            while (av_audio_fifo_size(m_fifo.get()) >= frameSize) {
                encodeFromFifo(frameSize);
            }
        } else {
            makeFrameWritable(count);
            auto* out = reinterpret_cast<std::int32_t*>(m_frame->data[0]);
            for (std::size_t c = 0; c < block.samples.size(); ++c) {
                const float* in = block.samples[c].data();
                for (int i = 0; i < count; ++i) {
                    out[static_cast<std::size_t>(i * m_channels) + c] = toPcm24(in[i]);
                }
            }
            m_frame->pts = *m_nextPts;
            *m_nextPts += count;
            sendFrame(m_frame.get());
        }
        copyVideo(*m_nextPts);
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
            av_packet_rescale_ts(m_packet.get(), m_encoder->time_base, m_audioStream->time_base);
            m_packet->stream_index = m_audioStream->index;
            // Takes the packet's data; the packet is blank afterwards.
            check(av_interleaved_write_frame(m_output.get(), m_packet.get()), "");
        }
    }

    // Copies source video packets up to `limit` (in samples of the audio
    // rate), or all that are left.
    void copyVideo(std::optional<std::int64_t> limit) {
        if (!m_source || m_videoDone) {
            return;
        }
        for (;;) {
            if (!m_videoPending) {
                const int read = av_read_frame(m_source.get(), m_videoPacket.get());
                if (read == AVERROR_EOF) {
                    m_videoDone = true;
                    return;
                }
                check(read, "cannot pass video through");
                if (m_outputStreamOf[static_cast<std::size_t>(m_videoPacket->stream_index)] < 0) {
                    av_packet_unref(m_videoPacket.get());
                    continue;
                }
                m_videoPending = true;
            }
            AVPacket& packet = *m_videoPacket;
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
            m_videoPending = false;
            check(av_interleaved_write_frame(m_output.get(), &packet), "cannot pass video through");
        }
    }

    void rethrowWorkerError() {
        if (m_error) {
            std::rethrow_exception(m_error);
        }
    }

    void stopThread(bool abandon) noexcept {
        {
            std::lock_guard lock(m_mutex);
            (abandon ? m_stopping : m_closing) = true;
        }
        m_changed.notify_all();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

    void close() noexcept {
        m_output.reset();
        m_source.reset();
    }

    std::filesystem::path m_url;
    Encoding m_encoding;
    int m_rate = 0;
    int m_channels = 0;
    State m_state = State::open;

    // Used by the encoding thread while it runs, by the caller otherwise.
    OutputContextPtr m_output;
    CodecContextPtr m_encoder;
    AVStream* m_audioStream = nullptr;
    FifoPtr m_fifo;
    FramePtr m_frame;
    int m_frameCapacity = 0;
    PacketPtr m_packet;
    std::optional<std::int64_t> m_nextPts; // of the next sample to encode
    InputContextPtr m_source;
    std::vector<int> m_outputStreamOf;
    PacketPtr m_videoPacket;
    bool m_videoPending = false;
    bool m_videoDone = false;

    // Shared between the caller and the encoding thread, under m_mutex.
    std::mutex m_mutex;
    std::condition_variable m_changed;
    Block m_slots[queueDepth];
    std::size_t m_head = 0;
    std::size_t m_queued = 0;
    bool m_closing = false;
    bool m_stopping = false;
    std::exception_ptr m_error;

    std::thread m_thread;
};

MediaWriter::MediaWriter(std::filesystem::path url, FileType fileType, double sampleRate,
                         std::int64_t channels, Encoding encoding, const MediaAsset& asset,
                         std::vector<MediaAsset::VideoTrack> videoTracks)
    : m_impl(std::make_unique<Impl>(std::move(url), fileType, sampleRate, channels, encoding, asset,
                                    videoTracks)) {}

MediaWriter::~MediaWriter() = default;

void MediaWriter::appendAudio(std::span<const float* const> planar, std::int64_t count,
                              MediaTime at) {
    m_impl->append(planar, count, at);
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

} // namespace ostrand
