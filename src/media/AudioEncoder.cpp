#include "AudioEncoder.h"

#include "Stopwatch.h"
#include "WriterParts.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>

namespace ostrand {

using writer::check;
using writer::fail;
using Codec = OutputFormat::AudioCodec;

namespace {

// Samples per encoded frame for codecs that take frames of any length.
constexpr int anyFrameSamples = 4096;
constexpr float pcm24FullScale = 8388608.0f; // 2^23

// pcm_s24le and 24-bit FLAC take 32-bit samples and keep their upper 24 bits.
std::int32_t toPcm24(float x) {
    const float clipped = std::isnan(x) ? 0.0f : std::clamp(x, -1.0f, 1.0f);
    const auto value = std::min(static_cast<std::int32_t>(std::lrint(clipped * pcm24FullScale)),
                                std::int32_t{8388607});
    return value * 256;
}

const char* encoderName(Codec codec) {
    switch (codec) {
    case Codec::aac:
        return "aac";
    case Codec::opus:
        return "libopus";
    case Codec::pcm24:
        return "pcm_s24le";
    case Codec::flac:
        return "flac";
    }
    return "aac";
}

AVSampleFormat sampleFormat(Codec codec) {
    switch (codec) {
    case Codec::aac:
        return AV_SAMPLE_FMT_FLTP;
    case Codec::opus:
        return AV_SAMPLE_FMT_FLT;
    case Codec::pcm24:
    case Codec::flac:
        return AV_SAMPLE_FMT_S32;
    }
    return AV_SAMPLE_FMT_FLTP;
}

} // namespace

AudioEncoder::AudioEncoder(AVFormatContext& output, Codec codecKind, int rate, int channels,
                           const std::map<std::string, std::string>& tags)
    : m_output(output)
    , m_rate(rate)
    , m_channels(channels) {
    const AVCodec* codec = avcodec_find_encoder_by_name(encoderName(codecKind));
    if (codec == nullptr ||
        avformat_query_codec(m_output.oformat, codec->id, FF_COMPLIANCE_NORMAL) == 0) {
        fail("cannot add audio input");
    }
    if (codec->supported_samplerates != nullptr) {
        bool supported = false;
        for (const int* supportedRate = codec->supported_samplerates; *supportedRate != 0;
             ++supportedRate) {
            supported = supported || *supportedRate == m_rate;
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
    encoder.sample_fmt = sampleFormat(codecKind);
    encoder.sample_rate = m_rate;
    av_channel_layout_default(&encoder.ch_layout, m_channels);
    encoder.time_base = AVRational{1, m_rate};
    encoder.bit_rate = OutputFormat::bitRate(codecKind, m_channels);
    if (encoder.sample_fmt == AV_SAMPLE_FMT_S32) {
        encoder.bits_per_raw_sample = 24;
    }
    if ((m_output.oformat->flags & AVFMT_GLOBALHEADER) != 0) {
        encoder.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    check(avcodec_open2(&encoder, codec, nullptr), "cannot add audio input");

    m_stream = avformat_new_stream(&m_output, nullptr);
    if (m_stream == nullptr) {
        fail("cannot add audio input");
    }
    m_stream->time_base = encoder.time_base;
    check(avcodec_parameters_from_context(m_stream->codecpar, &encoder), "cannot add audio input");
    m_meter.emplace(m_rate, m_channels, OutputFormat::isLossy(codecKind) ? m_stream : nullptr,
                    encoder.time_base);
    for (const char* key : {"language", "title"}) {
        if (tags.count(key) != 0) {
            av_dict_set(&m_stream->metadata, key, tags.at(key).c_str(), 0);
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

void AudioEncoder::prepareFrame(int samples) {
    av_frame_unref(m_frame.get());
    m_frame->format = m_encoder->sample_fmt;
    m_frame->sample_rate = m_rate;
    check(av_channel_layout_copy(&m_frame->ch_layout, &m_encoder->ch_layout), "");
    m_frame->nb_samples = samples;
    check(av_frame_get_buffer(m_frame.get(), 0), "");
    m_frameCapacity = samples;
}

// The encoder may still hold the previous frame's buffer.
void AudioEncoder::makeFrameWritable(int samples) {
    if (samples > m_frameCapacity) {
        prepareFrame(samples);
        return;
    }
    m_frame->nb_samples = m_frameCapacity;
    check(av_frame_make_writable(m_frame.get()), "");
    m_frame->nb_samples = samples;
}

// Converts a block to the encoder's sample format, into the FIFO that cuts
// it into the encoder's frames.
void AudioEncoder::encode(std::span<float* const> planar, std::int64_t count64, MediaTime at) {
    const Stopwatch busy(m_busySeconds);
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
    if (!m_meter->decodes()) {
        const Stopwatch metering(m_meterSeconds);
        m_meter->appendSamples(planar, count);
    }
    const int written = av_audio_fifo_write(m_fifo.get(), planes, count);
    if (written < count) {
        check(written < 0 ? written : AVERROR(ENOMEM), "");
    }
    while (av_audio_fifo_size(m_fifo.get()) >= m_frameSamples) {
        encodeFromFifo(m_frameSamples);
    }
}

void AudioEncoder::finish() {
    const Stopwatch busy(m_busySeconds);
    encodeFromFifo(av_audio_fifo_size(m_fifo.get()));
    sendFrame(nullptr);
    if (m_meter->decodes()) {
        const Stopwatch metering(m_meterSeconds);
        m_meter->appendPacket(nullptr);
    }
}

void AudioEncoder::encodeFromFifo(int samples) {
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
void AudioEncoder::sendFrame(const AVFrame* frame) {
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
        if (m_meter->decodes()) {
            const Stopwatch metering(m_meterSeconds);
            m_meter->appendPacket(m_packet.get());
        }
        av_packet_rescale_ts(m_packet.get(), m_encoder->time_base, m_stream->time_base);
        m_packet->stream_index = m_stream->index;
        // Takes the packet's data; the packet is blank afterwards.
        const Stopwatch writing(m_writeSeconds);
        check(av_interleaved_write_frame(&m_output, m_packet.get()), "");
    }
}

} // namespace ostrand
