#pragma once

#include <algorithm>
#include <cstdint>
#include <type_traits>
#include <vector>

// Deterministic test signals, planar 32-bit float.
namespace ostrand::test {

struct PlanarAudio {
    double sampleRate = 48000.0;
    std::vector<std::vector<float>> channels;

    std::int64_t frames() const {
        return channels.empty() ? 0 : static_cast<std::int64_t>(channels.front().size());
    }
    std::vector<float*> pointers();
    std::vector<const float*> constPointers() const;
    // Appends `other` (same rate and channel count) after this signal.
    void append(const PlanarAudio& other);
    // Multiplies every sample by 10^(db / 20).
    void applyGainDb(double db);
};

// Hands `take` the signal in consecutive blocks of at most `block` frames:
// pointers to each block's first samples, its length and its first frame.
template <typename Audio, typename Take>
requires std::is_same_v<std::remove_const_t<Audio>, PlanarAudio>
void inBlocks(Audio& audio, std::int64_t block, Take take) {
    auto at = [&audio] {
        if constexpr (std::is_const_v<Audio>) {
            return audio.constPointers();
        } else {
            return audio.pointers();
        }
    }();
    for (std::int64_t done = 0; done < audio.frames(); done += block) {
        const std::int64_t n = std::min(block, audio.frames() - done);
        take(at, n, done);
        for (auto& p : at) {
            p += n;
        }
    }
}

PlanarAudio silence(double sampleRate, int channels, double seconds);

// A sine of the given peak level in dBFS on every channel; `phaseRadians` is
// the phase of the first sample.
PlanarAudio sine(double sampleRate, int channels, double seconds, double frequencyHz,
                 double peakDbfs, double phaseRadians = 0.0);

// Uniform white noise at the given RMS level in dBFS, independent per channel.
PlanarAudio whiteNoise(double sampleRate, int channels, double seconds, double rmsDbfs,
                       std::uint32_t seed);

// Noise with a spectrum falling 3 dB per octave, like most programme
// material, at the given RMS level in dBFS, independent per channel.
PlanarAudio pinkNoise(double sampleRate, int channels, double seconds, double rmsDbfs,
                      std::uint32_t seed);

// Something that measures and levels like speech: voiced syllables (a
// harmonic series on a wandering pitch, with a noisy component) grouped into
// phrases whose levels differ by several dB, separated by pauses over a faint
// noise floor. Breath and fricative noise rolls off above a few kHz, as in a
// voice recording. Identical channels for stereo.
PlanarAudio speechLike(double sampleRate, int channels, double seconds, std::uint32_t seed);

// A 5.1 programme in the order L, R, C, LFE, Ls, Rs: music in front, speech
// in the centre, loud rumble below 120 Hz in the LFE, pink noise ambience in
// the surrounds.
PlanarAudio surround51(double sampleRate, double seconds, std::uint32_t seed);

// The signal through a linear-phase low-pass (a Kaiser-windowed sinc of
// 2 halfTaps + 1 taps, stopband 80 dB down), its delay removed.
PlanarAudio lowPassed(PlanarAudio audio, double cutoffHz, int halfTaps = 127);

// Something bright that measures like mixed music: chords of sawtooth notes
// (rich in harmonics up to the top of the band) changing every half second,
// with hi-hat-like bursts of white noise on every eighth note and a low drum
// on every beat, at about -20 LUFS. Channels differ a little, as panned
// instruments do.
PlanarAudio brightMusicLike(double sampleRate, int channels, double seconds, std::uint32_t seed);

// A square wave switching between +amplitude and -amplitude every half period.
PlanarAudio square(double sampleRate, int channels, double seconds, double frequencyHz,
                   double amplitude);

} // namespace ostrand::test
