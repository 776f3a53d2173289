#pragma once

#include "AvPtr.h"
#include "dsp/LoudnessMeter.h"

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace ostrand {

// Meters a written file as a player will hear it, every channel a front one:
// lossless samples as they are written, a lossy codec's packets decoded as
// they are written.
class OutputMeter {
public:
    // `lossy`: the stream of a lossy codec, whose packets are decoded; null
    // for a lossless one.
    OutputMeter(int rate, int channels, const AVStream* lossy, AVRational packetTimeBase);

    bool decodes() const noexcept { return static_cast<bool>(m_decoder); }
    // Lossless: the samples written.
    void appendSamples(std::span<float* const> planar, int count);
    // Lossy: a packet just encoded; nullptr at the end.
    void appendPacket(const AVPacket* packet);
    LoudnessFigures figures() const { return m_meter.figures(); }

private:
    void meterDecoded(const AVFrame& frame);

    int m_channels;
    LoudnessMeter m_meter;
    CodecContextPtr m_decoder;
    FramePtr m_decoded;
    std::vector<const float*> m_input;
    std::vector<float> m_planar; // a decoded interleaved frame, one channel after another
};

} // namespace ostrand
