#pragma once

#include "media/MediaWriter.h"
#include "media/MixedAudioReader.h"
#include "support/Signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

namespace ostrand::test {

// A whole stream as a reader delivered it.
struct ReadResult {
    PlanarAudio audio;
    std::vector<std::int64_t> blockSizes;
    std::vector<MediaTime> times;
};

inline ReadResult readAll(const MediaAsset& asset, const SourceAudioFormat& format,
                          const std::vector<MediaAsset::AudioTrack>& tracks) {
    ReadResult result;
    result.audio.sampleRate = format.sampleRate;
    result.audio.channels.resize(static_cast<std::size_t>(format.channels));
    MixedAudioReader reader(asset, format, tracks);
    reader.read([&](std::span<float* const> planar, std::int64_t count, MediaTime time) {
        for (std::size_t c = 0; c < result.audio.channels.size(); ++c) {
            result.audio.channels[c].insert(result.audio.channels[c].end(), planar[c],
                                            planar[c] + count);
        }
        result.blockSizes.push_back(count);
        result.times.push_back(time);
    });
    return result;
}

inline ReadResult readAll(const std::filesystem::path& path, bool forceMono = false) {
    const MediaAsset asset = MediaAsset::open(path);
    const auto [format, tracks] = MixedAudioReader::probe(asset, forceMono);
    return readAll(asset, format, tracks);
}

// Hands `audio` to the writer in blocks cycling through `blockSizes`.
inline void appendAll(MediaWriter& writer, const PlanarAudio& audio,
                      const std::vector<std::int64_t>& blockSizes = {4096}) {
    const auto rate = static_cast<std::int32_t>(std::lround(audio.sampleRate));
    std::vector<const float*> pointers(audio.channels.size());
    std::int64_t position = 0;
    for (std::size_t k = 0; position < audio.frames(); ++k) {
        const std::int64_t count =
            std::min(blockSizes[k % blockSizes.size()], audio.frames() - position);
        for (std::size_t c = 0; c < pointers.size(); ++c) {
            pointers[c] = audio.channels[c].data() + position;
        }
        writer.appendAudio(pointers, count, MediaTime{position, rate});
        position += count;
    }
}

// Names a parameterized case after its `name` field.
struct CaseName {
    template <typename Case>
    std::string operator()(const ::testing::TestParamInfo<Case>& param) const {
        return param.param.name;
    }
};

// Prints a parameterized case as its `name` in test listings.
template <typename Case>
requires requires(const Case& c) {
    c.name;
}
void PrintTo(const Case& c, std::ostream* out) {
    *out << c.name;
}

inline float peakOf(const std::vector<float>& samples, std::size_t from = 0) {
    float peak = 0.0f;
    for (std::size_t i = from; i < samples.size(); ++i) {
        peak = std::max(peak, std::abs(samples[i]));
    }
    return peak;
}

} // namespace ostrand::test
