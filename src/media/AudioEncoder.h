#pragma once

#include "AvPtr.h"
#include "MediaTime.h"
#include "OutputFormat.h"
#include "OutputMeter.h"

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ostrand {

// The new audio track of a file being written: adds its stream to `output`,
// converts planar float blocks to the codec's sample format, cuts them into
// the codec's frames and writes the packets, metering what a player will
// hear. One thread drives it.
class AudioEncoder {
public:
    AudioEncoder(AVFormatContext& output, OutputFormat::AudioCodec codec, int rate, int channels,
                 const std::map<std::string, std::string>& tags);

    // Blocks in time order without gaps; the first one's time is where the
    // audio starts.
    void encode(std::span<float* const> planar, std::int64_t count, MediaTime at);
    // Encodes what is left and drains the codec and the meter.
    void finish();
    // The time of the next sample to encode, in samples.
    std::int64_t nextSample() const noexcept { return m_nextPts.value_or(0); }
    LoudnessFigures measured() const { return m_meter->figures(); }
    // Seconds spent in encode() and finish(), and the parts of them spent
    // metering and writing the file.
    double busySeconds() const noexcept { return m_busySeconds; }
    double meterSeconds() const noexcept { return m_meterSeconds; }
    double writeSeconds() const noexcept { return m_writeSeconds; }

private:
    void prepareFrame(int samples);
    void makeFrameWritable(int samples);
    void encodeFromFifo(int samples);
    void sendFrame(const AVFrame* frame);

    AVFormatContext& m_output;
    int m_rate;
    int m_channels;
    CodecContextPtr m_encoder;
    AVStream* m_stream = nullptr;
    FifoPtr m_fifo;
    int m_frameSamples = 0;
    std::vector<float> m_interleaved; // 32-bit samples, float or integer
    FramePtr m_frame;
    int m_frameCapacity = 0;
    PacketPtr m_packet;
    std::optional<std::int64_t> m_nextPts; // of the next sample to encode
    std::optional<OutputMeter> m_meter;
    double m_busySeconds = 0.0;
    double m_meterSeconds = 0.0;
    double m_writeSeconds = 0.0;
};

} // namespace ostrand
