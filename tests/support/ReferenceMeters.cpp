#include "support/ReferenceMeters.h"

#include "support/TempDir.h"

#include <ebur128.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace ostrand::test {

namespace {

struct Ebur128Deleter {
    void operator()(ebur128_state* state) const { ebur128_destroy(&state); }
};
using Ebur128Ptr = std::unique_ptr<ebur128_state, Ebur128Deleter>;

std::vector<float> interleave(const PlanarAudio& audio) {
    const auto frames = static_cast<std::size_t>(audio.frames());
    const std::size_t channels = audio.channels.size();
    std::vector<float> out(frames * channels);
    for (std::size_t i = 0; i < frames; ++i) {
        for (std::size_t c = 0; c < channels; ++c) {
            out[i * channels + c] = audio.channels[c][i];
        }
    }
    return out;
}

static_assert(static_cast<int>(Ebur128Channel::rightSurround) == EBUR128_RIGHT_SURROUND &&
              static_cast<int>(Ebur128Channel::unused) == EBUR128_UNUSED);

Ebur128Ptr measure(const PlanarAudio& audio, const std::vector<Ebur128Channel>& map) {
    const auto channels = static_cast<unsigned>(audio.channels.size());
    Ebur128Ptr state(ebur128_init(channels,
                                  static_cast<unsigned long>(std::lround(audio.sampleRate)),
                                  EBUR128_MODE_I | EBUR128_MODE_LRA | EBUR128_MODE_TRUE_PEAK));
    if (!state) {
        throw std::runtime_error("ebur128_init failed");
    }
    for (unsigned c = 0; c < map.size() && c < channels; ++c) {
        if (ebur128_set_channel(state.get(), c, static_cast<int>(map[c])) != EBUR128_SUCCESS) {
            throw std::runtime_error("ebur128_set_channel failed");
        }
    }
    const std::vector<float> samples = interleave(audio);
    if (ebur128_add_frames_float(state.get(), samples.data(),
                                 static_cast<std::size_t>(audio.frames())) != EBUR128_SUCCESS) {
        throw std::runtime_error("ebur128_add_frames_float failed");
    }
    return state;
}

template <typename T>
void put(std::ofstream& out, T value) {
    out.write(reinterpret_cast<const char*>(&value), sizeof value);
}

} // namespace

double ebur128Integrated(const PlanarAudio& audio) {
    return ebur128Figures(audio).integratedLufs;
}

Ebur128Figures ebur128Figures(const PlanarAudio& audio, const std::vector<Ebur128Channel>& map) {
    const Ebur128Ptr state = measure(audio, map);
    Ebur128Figures figures{};
    ebur128_loudness_global(state.get(), &figures.integratedLufs);
    ebur128_loudness_range(state.get(), &figures.loudnessRangeLu);
    double peak = 0.0;
    for (unsigned c = 0; c < audio.channels.size(); ++c) {
        double channelPeak = 0.0;
        ebur128_true_peak(state.get(), c, &channelPeak);
        peak = std::max(peak, channelPeak);
    }
    figures.truePeakDb = 20.0 * std::log10(peak);
    return figures;
}

std::filesystem::path floatWav(const std::filesystem::path& path, const PlanarAudio& audio) {
    const std::vector<float> samples = interleave(audio);
    const auto channels = static_cast<std::uint16_t>(audio.channels.size());
    const auto rate = static_cast<std::uint32_t>(std::lround(audio.sampleRate));
    const auto dataBytes = static_cast<std::uint32_t>(samples.size() * sizeof(float));
    std::ofstream out(path, std::ios::binary);
    out.write("RIFF", 4);
    put<std::uint32_t>(out, 36 + dataBytes);
    out.write("WAVEfmt ", 8);
    put<std::uint32_t>(out, 16);
    put<std::uint16_t>(out, 3); // IEEE float
    put<std::uint16_t>(out, channels);
    put<std::uint32_t>(out, rate);
    put<std::uint32_t>(out, rate * channels * 4u);
    put<std::uint16_t>(out, static_cast<std::uint16_t>(channels * 4u));
    put<std::uint16_t>(out, 32);
    out.write("data", 4);
    put<std::uint32_t>(out, dataBytes);
    out.write(reinterpret_cast<const char*>(samples.data()), dataBytes);
    if (!out) {
        throw std::runtime_error("cannot write " + path.string());
    }
    return path;
}

double oversampledPeakDb(const PlanarAudio& audio) {
    const TempDir dir;
    const auto out = dir / "out.f32";
    const std::string command = "ffmpeg -nostdin -v error -y -i '" +
                                floatWav(dir / "in.wav", audio).string() +
                                "' -af aresample=192000:resampler=soxr:precision=33:cheby=1 "
                                "-f f32le -c:a pcm_f32le '" +
                                out.string() + "'";
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("ffmpeg failed: " + command);
    }
    std::ifstream raw(out, std::ios::binary);
    float peak = 0.0f;
    float x = 0.0f;
    while (raw.read(reinterpret_cast<char*>(&x), sizeof x)) {
        peak = std::max(peak, std::fabs(x));
    }
    return 20.0 * std::log10(static_cast<double>(peak));
}

} // namespace ostrand::test
