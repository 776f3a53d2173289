#include "OutputMeter.h"

#include "WriterParts.h"

#include <algorithm>

namespace ostrand {

using writer::check;
using writer::fail;

OutputMeter::OutputMeter(int rate, int channels, const AVStream* lossy, AVRational packetTimeBase)
    : m_channels(channels)
    , m_meter(static_cast<double>(rate),
              std::vector<ChannelWeight>(static_cast<std::size_t>(channels), ChannelWeight::front))
    , m_input(static_cast<std::size_t>(channels)) {
    if (lossy == nullptr) {
        return;
    }
    const AVCodec* codec = avcodec_find_decoder(lossy->codecpar->codec_id);
    if (codec == nullptr) {
        fail("cannot add audio input: no decoder to measure it");
    }
    m_decoder.reset(avcodec_alloc_context3(codec));
    if (!m_decoder) {
        throw std::bad_alloc();
    }
    check(avcodec_parameters_to_context(m_decoder.get(), lossy->codecpar),
          "cannot add audio input");
    m_decoder->pkt_timebase = packetTimeBase;
    m_decoder->request_sample_fmt = AV_SAMPLE_FMT_FLTP;
    check(avcodec_open2(m_decoder.get(), codec, nullptr), "cannot add audio input");
    m_decoded = allocateFrame();
}

void OutputMeter::appendSamples(std::span<float* const> planar, int count) {
    std::copy(planar.begin(), planar.end(), m_input.begin());
    m_meter.append(m_input, count);
}

void OutputMeter::appendPacket(const AVPacket* packet) {
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

void OutputMeter::meterDecoded(const AVFrame& frame) {
    const int count = frame.nb_samples;
    if (frame.ch_layout.nb_channels != m_channels) {
        fail("cannot measure the output: the decoder gave another channel count");
    }
    if (frame.format == AV_SAMPLE_FMT_FLTP) {
        for (int c = 0; c < m_channels; ++c) {
            m_input[static_cast<std::size_t>(c)] =
                reinterpret_cast<const float*>(frame.extended_data[c]);
        }
    } else if (frame.format == AV_SAMPLE_FMT_FLT) {
        const auto* in = reinterpret_cast<const float*>(frame.extended_data[0]);
        m_planar.resize(static_cast<std::size_t>(count) * static_cast<std::size_t>(m_channels));
        for (int c = 0; c < m_channels; ++c) {
            float* out = m_planar.data() + static_cast<std::ptrdiff_t>(c) * count;
            for (int i = 0; i < count; ++i) {
                out[i] = in[i * m_channels + c];
            }
            m_input[static_cast<std::size_t>(c)] = out;
        }
    } else {
        fail("cannot measure the output: the decoder gave an unexpected sample format");
    }
    m_meter.append(m_input, count);
}

} // namespace ostrand
