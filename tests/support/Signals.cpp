#include "support/Signals.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <random>

namespace ostrand::test {

namespace {

std::size_t sampleCount(double sampleRate, double seconds) {
    return static_cast<std::size_t>(std::llround(sampleRate * seconds));
}

double amplitudeOf(double db) {
    return std::pow(10.0, db / 20.0);
}

PlanarAudio withChannels(double sampleRate, int channels, std::size_t count) {
    PlanarAudio audio;
    audio.sampleRate = sampleRate;
    audio.channels.assign(static_cast<std::size_t>(channels), std::vector<float>(count, 0.0f));
    return audio;
}

} // namespace

std::vector<float*> PlanarAudio::pointers() {
    std::vector<float*> result;
    for (auto& channel : channels) {
        result.push_back(channel.data());
    }
    return result;
}

std::vector<const float*> PlanarAudio::constPointers() const {
    std::vector<const float*> result;
    for (const auto& channel : channels) {
        result.push_back(channel.data());
    }
    return result;
}

void PlanarAudio::append(const PlanarAudio& other) {
    for (std::size_t c = 0; c < channels.size(); ++c) {
        channels[c].insert(channels[c].end(), other.channels[c].begin(), other.channels[c].end());
    }
}

void PlanarAudio::applyGainDb(double db) {
    const auto gain = static_cast<float>(amplitudeOf(db));
    for (auto& channel : channels) {
        for (float& x : channel) {
            x *= gain;
        }
    }
}

PlanarAudio silence(double sampleRate, int channels, double seconds) {
    return withChannels(sampleRate, channels, sampleCount(sampleRate, seconds));
}

PlanarAudio sine(double sampleRate, int channels, double seconds, double frequencyHz,
                 double peakDbfs, double phaseRadians) {
    PlanarAudio audio = withChannels(sampleRate, channels, sampleCount(sampleRate, seconds));
    const double a = amplitudeOf(peakDbfs);
    const double w = 2.0 * std::numbers::pi * frequencyHz / sampleRate;
    for (std::size_t i = 0; i < audio.channels[0].size(); ++i) {
        const auto x = static_cast<float>(a * std::sin(w * static_cast<double>(i) + phaseRadians));
        for (auto& channel : audio.channels) {
            channel[i] = x;
        }
    }
    return audio;
}

PlanarAudio whiteNoise(double sampleRate, int channels, double seconds, double rmsDbfs,
                       std::uint32_t seed) {
    PlanarAudio audio = withChannels(sampleRate, channels, sampleCount(sampleRate, seconds));
    std::mt19937 rng(seed);
    // Uniform on [-a, a] has an RMS of a / sqrt(3).
    const double a = amplitudeOf(rmsDbfs) * std::sqrt(3.0);
    std::uniform_real_distribution<double> dist(-a, a);
    for (auto& channel : audio.channels) {
        for (float& x : channel) {
            x = static_cast<float>(dist(rng));
        }
    }
    return audio;
}

PlanarAudio pinkNoise(double sampleRate, int channels, double seconds, double rmsDbfs,
                      std::uint32_t seed) {
    PlanarAudio audio = withChannels(sampleRate, channels, sampleCount(sampleRate, seconds));
    std::mt19937 rng(seed);
    std::normal_distribution<double> white(0.0, 1.0);
    for (auto& channel : audio.channels) {
        // Paul Kellet's economy filter: within 0.5 dB of -3 dB/octave.
        double b0 = 0.0;
        double b1 = 0.0;
        double b2 = 0.0;
        double sumSquares = 0.0;
        std::vector<double> raw(channel.size());
        for (double& y : raw) {
            const double w = white(rng);
            b0 = 0.99765 * b0 + w * 0.0990460;
            b1 = 0.96300 * b1 + w * 0.2965164;
            b2 = 0.57000 * b2 + w * 1.0526913;
            y = b0 + b1 + b2 + w * 0.1848;
            sumSquares += y * y;
        }
        const double scale =
            amplitudeOf(rmsDbfs) / std::sqrt(sumSquares / static_cast<double>(raw.size()));
        for (std::size_t i = 0; i < raw.size(); ++i) {
            channel[i] = static_cast<float>(raw[i] * scale);
        }
    }
    return audio;
}

PlanarAudio speechLike(double sampleRate, int channels, double seconds, std::uint32_t seed) {
    const std::size_t n = sampleCount(sampleRate, seconds);
    PlanarAudio audio = withChannels(sampleRate, channels, n);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::normal_distribution<double> gauss(0.0, 1.0);
    std::vector<float>& out = audio.channels[0];

    std::size_t pos = 0;
    double phase = 0.0;
    // Two one-pole low-passes near 4 kHz shape the breath noise.
    const double pole = std::exp(-2.0 * std::numbers::pi * 4000.0 / sampleRate);
    double lp1 = 0.0;
    double lp2 = 0.0;
    while (pos < n) {
        // A phrase: 1 to 4 s of syllables at a level of its own.
        const double phraseDb = -20.0 + 12.0 * (unit(rng) - 0.5);
        const auto phraseEnd = std::min(n, pos + sampleCount(sampleRate, 1.0 + 3.0 * unit(rng)));
        while (pos < phraseEnd) {
            const auto syllable = sampleCount(sampleRate, 0.12 + 0.2 * unit(rng));
            const double pitch = 110.0 + 90.0 * unit(rng);
            const double level = amplitudeOf(phraseDb + 4.0 * (unit(rng) - 0.5));
            for (std::size_t k = 0; k < syllable && pos < n; ++k, ++pos) {
                const double t = static_cast<double>(k) / static_cast<double>(syllable);
                const double envelope = std::sin(std::numbers::pi * t);
                const double f0 = pitch * (1.0 + 0.08 * std::sin(2.0 * std::numbers::pi * t));
                phase += 2.0 * std::numbers::pi * f0 / sampleRate;
                double voiced = 0.0;
                for (int h = 1; h <= 12; ++h) {
                    voiced += std::sin(phase * h) / h;
                }
                lp1 = (1.0 - pole) * gauss(rng) + pole * lp1;
                lp2 = (1.0 - pole) * lp1 + pole * lp2;
                const double breath = 0.3 * lp2;
                out[pos] = static_cast<float>(level * envelope * (0.5 * voiced + breath));
            }
            // Short gap between syllables.
            pos += sampleCount(sampleRate, 0.03 * unit(rng));
        }
        // A pause between phrases.
        pos += sampleCount(sampleRate, 0.3 + 1.2 * unit(rng));
    }
    const double floorAmplitude = amplitudeOf(-65.0);
    for (float& x : out) {
        x += static_cast<float>(floorAmplitude * gauss(rng));
    }
    for (std::size_t c = 1; c < audio.channels.size(); ++c) {
        audio.channels[c] = out;
    }
    return audio;
}

PlanarAudio surround51(double sampleRate, double seconds, std::uint32_t seed) {
    PlanarAudio audio = withChannels(sampleRate, 6, sampleCount(sampleRate, seconds));
    const PlanarAudio front = brightMusicLike(sampleRate, 2, seconds, seed);
    const PlanarAudio centre = speechLike(sampleRate, 1, seconds, seed + 1);
    const PlanarAudio rumble = pinkNoise(sampleRate, 1, seconds, -12.0, seed + 2);
    const PlanarAudio ambience = pinkNoise(sampleRate, 2, seconds, -32.0, seed + 3);
    audio.channels[0] = front.channels[0];
    audio.channels[1] = front.channels[1];
    audio.channels[2] = centre.channels[0];
    // Two one-pole low-passes at 120 Hz leave the LFE's band.
    const double pole = std::exp(-2.0 * std::numbers::pi * 120.0 / sampleRate);
    double lp1 = 0.0;
    double lp2 = 0.0;
    for (std::size_t i = 0; i < rumble.channels[0].size(); ++i) {
        lp1 = (1.0 - pole) * 1.2 * rumble.channels[0][i] + pole * lp1;
        lp2 = (1.0 - pole) * lp1 + pole * lp2;
        audio.channels[3][i] = static_cast<float>(lp2);
    }
    audio.channels[4] = ambience.channels[0];
    audio.channels[5] = ambience.channels[1];
    return audio;
}

PlanarAudio lowPassed(PlanarAudio audio, double cutoffHz, int halfTaps) {
    const auto besselI0 = [](double x) {
        double sum = 1.0;
        double term = 1.0;
        for (int k = 1; k < 60; ++k) {
            term *= (x / (2.0 * k)) * (x / (2.0 * k));
            sum += term;
        }
        return sum;
    };
    constexpr double beta = 8.0;
    const double cutoff = cutoffHz / audio.sampleRate;
    std::vector<double> h;
    for (int k = -halfTaps; k <= halfTaps; ++k) {
        const double r = static_cast<double>(k) / halfTaps;
        const double sinc =
            k == 0 ? 2.0 * cutoff
                   : std::sin(2.0 * std::numbers::pi * cutoff * k) / (std::numbers::pi * k);
        h.push_back(sinc * besselI0(beta * std::sqrt(1.0 - r * r)) / besselI0(beta));
    }
    const auto half = static_cast<std::ptrdiff_t>(halfTaps);
    for (auto& channel : audio.channels) {
        const std::vector<float> x = channel;
        const auto n = static_cast<std::ptrdiff_t>(x.size());
        for (std::ptrdiff_t i = 0; i < n; ++i) {
            double y = 0.0;
            for (std::ptrdiff_t j = std::max<std::ptrdiff_t>(0, i - half);
                 j <= std::min(n - 1, i + half); ++j) {
                y += h[static_cast<std::size_t>(i - j + half)] * x[static_cast<std::size_t>(j)];
            }
            channel[static_cast<std::size_t>(i)] = static_cast<float>(y);
        }
    }
    return audio;
}

PlanarAudio brightMusicLike(double sampleRate, int channels, double seconds, std::uint32_t seed) {
    const std::size_t n = sampleCount(sampleRate, seconds);
    PlanarAudio audio = withChannels(sampleRate, channels, n);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    const std::size_t chordLength = sampleCount(sampleRate, 0.5);
    const std::size_t eighth = chordLength / 4;
    const double roots[] = {110.0, 146.8, 130.8, 164.8};
    std::vector<double> phases(4 * audio.channels.size(), 0.0);
    for (std::size_t i = 0; i < n; ++i) {
        const double root = roots[(i / chordLength) % 4];
        const double notes[] = {root, root * 1.26, root * 1.5, root * 2.0};
        const double beatTime = static_cast<double>(i % (2 * eighth)) / sampleRate;
        const double hatTime = static_cast<double>(i % eighth) / sampleRate;
        const double drum = std::exp(-beatTime * 25.0) *
                            std::sin(2.0 * std::numbers::pi * 55.0 * beatTime * (1.0 + beatTime));
        const double hat = std::exp(-hatTime * 60.0) * unit(rng);
        for (std::size_t c = 0; c < audio.channels.size(); ++c) {
            double saw = 0.0;
            for (std::size_t k = 0; k < 4; ++k) {
                double& phase = phases[c * 4 + k];
                // Detuned a little per channel, as two instruments would be.
                phase += notes[k] * (1.0 + 0.002 * static_cast<double>(c)) / sampleRate;
                phase -= std::floor(phase);
                saw += 2.0 * phase - 1.0;
            }
            const double mix = 0.25 * saw * (c % 2 == 0 ? 0.8 : 1.0) + 0.5 * drum + 0.3 * hat;
            audio.channels[c][i] = static_cast<float>(0.12 * mix);
        }
    }
    return audio;
}

PlanarAudio square(double sampleRate, int channels, double seconds, double frequencyHz,
                   double amplitude) {
    PlanarAudio audio = withChannels(sampleRate, channels, sampleCount(sampleRate, seconds));
    const double halfPeriod = sampleRate / frequencyHz / 2.0;
    for (std::size_t i = 0; i < audio.channels[0].size(); ++i) {
        const bool high =
            static_cast<long>(std::floor(static_cast<double>(i) / halfPeriod)) % 2 == 0;
        for (auto& channel : audio.channels) {
            channel[i] = static_cast<float>(high ? amplitude : -amplitude);
        }
    }
    return audio;
}

} // namespace ostrand::test
