// The pause evaluation's steps, driven by bench/pauses/run:
//   pause_eval recipes [tune|held-out]  names the programmes (of one half)
//   pause_eval describe RECIPE          one line that changes when the recipe
//                                       does: the script rebuilds on a change
//   pause_eval mix RECIPE CLIPDIR OUT   builds OUT.wav, OUT.f32 (interleaved
//                                       raw float), OUT.labels and OUT.info
//                                       from CLIPDIR/RATE/POOL-NN.f32 (mono raw
//                                       float at the programme's rate)
//   pause_eval dev OUT TARGET           largest gain difference (dB) between
//                                       the noise-aware plan and the exact one
//   pause_eval measure OUT AFTER.f32 TARGET
//                                       kind, clean flag and the figures of one
//                                       leveled version (AFTER: interleaved raw
//                                       float at the programme's rate and
//                                       channel count)
//   pause_eval report TITLE RESULTS     the table and each method's score
// Everything is seeded: the same clips give the same programmes.

#include "PauseMetrics.h"

#include "dsp/FrameAnalyzer.h"
#include "dsp/GainCurveBuilder.h"
#include "dsp/LevelingParameters.h"
#include "support/ReferenceMeters.h"
#include "support/Signals.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <numbers>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace ostrand;
using pauses::Labels;
using pauses::Span;

// Bumped when a generator changes, so that cached programmes are rebuilt.
constexpr int generatorVersion = 2;

enum class Half { tune, heldOut };
enum class Room { pink, white, brown, vent, hum50, hum60, babble };
enum class Music { none, chords, pads, drums };

struct Speaker {
    const char* pool; // clips POOL-00.f32, POOL-01.f32, ...
    double lufs;
};

struct Recipe {
    const char* name;
    Half half;
    double rate;
    int channels;
    std::vector<Speaker> speakers;
    int sentences;
    int turn; // sentences per turn
    double pauseMinSeconds;
    double pauseMaxSeconds;
    double longPauseSeconds; // one such pause mid-programme; 0 for none
    double fadeDb;           // the speech fades by this much over its middle third
    Room room;
    double roomDb; // RMS per channel, dBFS
    Music music;
    double musicLufs;
    double breathDb; // breaths (RMS, dBFS) and clicks in the pauses; 0 for none
    std::uint32_t seed;
};

// Rooms at -70 dBFS or quieter without music: where the noise-aware plan
// should not differ from the exact one.
constexpr double cleanRoomDb = -70.0;

// The halves differ in seeds, voices, rooms and music, so that a detector
// tuned on the first is judged on material it has never met.
// clang-format off
// name, half, rate, channels, speakers (pool, LUFS);
// sentences, turn, pause min and max, long pause (s), fade (dB), room, room dBFS,
// music, music LUFS, breaths (dBFS), seed
const std::vector<Recipe> recipes = {
    {"t-clean-48m", Half::tune, 48000, 1, {{"us-m3", -20}, {"gb-f3", -29}},
     12, 3, 0.6, 3.5, 0, 0, Room::pink, -76, Music::none, 0, 0, 101},
    {"t-clean-44s", Half::tune, 44100, 2, {{"librivox", -19}, {"m1", -28}},
     14, 2, 0.4, 3.0, 15, 0, Room::white, -72, Music::none, 0, 0, 102},
    {"t-pink-62", Half::tune, 48000, 1, {{"librivox", -20}, {"us-m3", -27}, {"us-f2", -33}},
     15, 2, 0.8, 3.0, 0, 0, Room::pink, -62, Music::none, 0, 0, 103},
    {"t-pink-48", Half::tune, 16000, 1, {{"gb-f3", -18}, {"m1", -30}},
     12, 3, 1.0, 4.0, 0, 0, Room::pink, -48, Music::none, 0, 0, 104},
    {"t-pink-35", Half::tune, 48000, 2, {{"us-m3", -21}, {"librivox", -29}},
     12, 2, 1.0, 3.5, 15, 0, Room::pink, -35, Music::none, 0, 0, 105},
    {"t-white-52", Half::tune, 44100, 1, {{"us-f2", -20}, {"gb-f3", -31}},
     12, 3, 0.8, 3.0, 0, 0, Room::white, -52, Music::none, 0, 0, 106},
    {"t-hum50-50", Half::tune, 48000, 2, {{"m1", -19}, {"librivox", -26}},
     12, 3, 0.8, 3.5, 0, 0, Room::hum50, -50, Music::none, 0, 0, 107},
    {"t-babble-44", Half::tune, 48000, 1, {{"us-m3", -20}, {"gb-f3", -30}},
     12, 3, 1.0, 3.5, 0, 0, Room::babble, -44, Music::none, 0, 0, 108},
    {"t-breath-66", Half::tune, 44100, 1, {{"librivox", -20}, {"us-f2", -32}},
     12, 2, 1.2, 3.5, 0, 0, Room::pink, -66, Music::none, 0, -50, 109},
    {"t-chords-36", Half::tune, 48000, 2, {{"gb-f3", -20}},
     12, 12, 1.0, 3.0, 0, 0, Room::pink, -70, Music::chords, -36, 0, 110},
    {"t-chords-30", Half::tune, 44100, 1, {{"us-m3", -20}, {"m1", -28}},
     12, 3, 1.0, 3.0, 0, 0, Room::pink, -65, Music::chords, -30, 0, 111},
    {"t-fade-15", Half::tune, 48000, 1, {{"us-m3", -19}},
     16, 16, 0.8, 3.0, 0, 15, Room::pink, -55, Music::none, 0, 0, 112},
    {"t-long-60", Half::tune, 16000, 1, {{"librivox", -20}, {"us-f2", -30}},
     9, 2, 0.8, 2.5, 60, 0, Room::pink, -42, Music::none, 0, 0, 113},
    {"t-rapid-58", Half::tune, 16000, 2, {{"gb-f3", -20}, {"us-m3", -27}},
     14, 1, 0.3, 1.2, 0, 0, Room::white, -58, Music::none, 0, 0, 114},

    {"h-clean-16m", Half::heldOut, 16000, 1, {{"cards", -20}, {"sc-m2", -29}},
     16, 3, 0.5, 3.0, 0, 0, Room::brown, -72, Music::none, 0, 0, 201},
    {"h-clean-48s", Half::heldOut, 48000, 2, {{"nyc-f5", -19}, {"rp-m7", -30}},
     12, 2, 0.4, 3.0, 15, 0, Room::vent, -74, Music::none, 0, 0, 202},
    {"h-brown-56", Half::heldOut, 44100, 1, {{"raw", -20}, {"alsa", -28}, {"rp-m7", -35}},
     18, 3, 0.8, 3.0, 0, 0, Room::brown, -56, Music::none, 0, 0, 203},
    {"h-brown-40", Half::heldOut, 48000, 1, {{"sc-m2", -19}, {"cards", -31}},
     14, 2, 1.0, 3.5, 0, 0, Room::brown, -40, Music::none, 0, 0, 204},
    {"h-vent-50", Half::heldOut, 44100, 2, {{"ca-f4", -20}, {"raw", -30}},
     14, 3, 0.8, 3.5, 0, 0, Room::vent, -50, Music::none, 0, 0, 205},
    {"h-vent-37", Half::heldOut, 16000, 1, {{"rp-m7", -21}, {"nyc-f5", -28}},
     12, 3, 1.0, 3.5, 15, 0, Room::vent, -37, Music::none, 0, 0, 206},
    {"h-hum60-47", Half::heldOut, 48000, 1, {{"alsa", -20}, {"sc-m2", -26}},
     16, 3, 0.8, 3.0, 0, 0, Room::hum60, -47, Music::none, 0, 0, 207},
    {"h-babble-42", Half::heldOut, 44100, 2, {{"nyc-f5", -20}, {"cards", -32}},
     14, 3, 1.0, 3.5, 0, 0, Room::babble, -42, Music::none, 0, 0, 208},
    {"h-clicks-64", Half::heldOut, 16000, 1, {{"raw", -20}, {"ca-f4", -29}},
     14, 2, 1.2, 3.5, 0, 0, Room::brown, -64, Music::none, 0, -46, 209},
    {"h-pads-34", Half::heldOut, 48000, 2, {{"sc-m2", -20}},
     12, 12, 1.0, 3.0, 0, 0, Room::vent, -72, Music::pads, -34, 0, 210},
    {"h-drums-30", Half::heldOut, 44100, 1, {{"ca-f4", -20}, {"alsa", -29}},
     14, 3, 1.0, 3.0, 0, 0, Room::brown, -68, Music::drums, -30, 0, 211},
    {"h-pads-40", Half::heldOut, 16000, 2, {{"rp-m7", -20}, {"raw", -29}},
     12, 3, 1.0, 3.0, 0, 0, Room::brown, -66, Music::pads, -40, 0, 212},
    {"h-fade-15", Half::heldOut, 44100, 1, {{"nyc-f5", -19}},
     16, 16, 0.8, 3.0, 0, 15, Room::vent, -54, Music::none, 0, 0, 213},
    {"h-long-60", Half::heldOut, 48000, 1, {{"cards", -20}, {"sc-m2", -31}},
     12, 2, 0.8, 2.5, 60, 0, Room::brown, -45, Music::none, 0, 0, 214},
    {"h-rapid-55", Half::heldOut, 48000, 2, {{"alsa", -20}, {"raw", -27}},
     16, 1, 0.3, 1.2, 0, 0, Room::brown, -55, Music::none, 0, 0, 215},
};
// clang-format on

// The voices a babble is made of: the half's own, never the other's.
const std::vector<const char*> babblePools[] = {
    {"us-m3", "gb-f3", "m1", "us-f2", "librivox"},
    {"sc-m2", "ca-f4", "rp-m7", "nyc-f5", "cards", "alsa", "raw"},
};

const Recipe& findRecipe(const std::string& name) {
    for (const Recipe& r : recipes) {
        if (name == r.name) {
            return r;
        }
    }
    throw std::runtime_error("unknown recipe " + name);
}

const char* halfName(Half half) {
    return half == Half::tune ? "tune" : "held-out";
}

bool isClean(const Recipe& r) {
    return r.roomDb <= cleanRoomDb && r.music == Music::none;
}

const char* kindOf(const Recipe& r) {
    return r.fadeDb > 0.0 ? "fade" : r.speakers.size() > 1 ? "speakers" : "single";
}

std::vector<float> readRaw(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path.string());
    }
    in.seekg(0, std::ios::end);
    std::vector<float> x(static_cast<std::size_t>(in.tellg()) / sizeof(float));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(x.data()),
            static_cast<std::streamsize>(x.size() * sizeof(float)));
    return x;
}

void scale(std::vector<float>& x, double db) {
    const auto g = static_cast<float>(std::pow(10.0, db / 20.0));
    for (float& v : x) {
        v *= g;
    }
}

void scaleToRms(std::vector<float>& x, double rmsDb) {
    scale(x, rmsDb - pauses::meanSquareDb(x, {0, x.size()}));
}

// One-pole low-pass, in place; cutoffs as a room's coloured noise needs.
void lowPass(std::vector<float>& x, double cutoffHz, double rate) {
    const double a = std::exp(-2.0 * std::numbers::pi * cutoffHz / rate);
    double y = 0.0;
    for (float& v : x) {
        y = a * y + (1.0 - a) * static_cast<double>(v);
        v = static_cast<float>(y);
    }
}

void highPass(std::vector<float>& x, double cutoffHz, double rate) {
    std::vector<float> low = x;
    lowPass(low, cutoffHz, rate);
    for (std::size_t i = 0; i < x.size(); ++i) {
        x[i] -= low[i];
    }
}

double sine(double hz, double t, double phase = 0.0) {
    return std::sin(2.0 * std::numbers::pi * hz * t + phase);
}

class Clips {
public:
    Clips(std::filesystem::path dir, double rate)
        : m_dir(std::move(dir) / std::to_string(std::lround(rate))) {}

    // The pool's clips in order; the pool's first use reads them all.
    const std::vector<std::vector<float>>& pool(const std::string& name) {
        auto [it, added] = m_pools.try_emplace(name);
        if (added) {
            for (int i = 0;; ++i) {
                char file[64];
                std::snprintf(file, sizeof file, "%s-%02d.f32", name.c_str(), i);
                if (!std::filesystem::exists(m_dir / file)) {
                    break;
                }
                it->second.push_back(readRaw(m_dir / file));
            }
            if (it->second.empty()) {
                throw std::runtime_error("no clips for " + name + " in " + m_dir.string());
            }
        }
        return it->second;
    }

private:
    std::filesystem::path m_dir;
    std::map<std::string, std::vector<std::vector<float>>> m_pools;
};

// Several voices at once, each looping through its pool from a random point
// with short gaps: a café or an open-plan office behind the speaker.
std::vector<float> babble(const Recipe& r, Clips& clips, std::size_t n, std::mt19937& rng) {
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<float> x(n);
    const auto& pools = babblePools[r.half == Half::tune ? 0 : 1];
    const int voices = r.half == Half::tune ? 5 : 7;
    for (int v = 0; v < voices; ++v) {
        const auto& pool = clips.pool(pools[static_cast<std::size_t>(v) % pools.size()]);
        const double gain = std::pow(10.0, (6.0 * unit(rng) - 3.0) / 20.0);
        auto clip = static_cast<std::size_t>(unit(rng) * static_cast<double>(pool.size()));
        // Starting before the programme does, so nobody starts at time zero.
        auto at = -static_cast<std::ptrdiff_t>(unit(rng) * 4.0 * r.rate);
        while (at < static_cast<std::ptrdiff_t>(n)) {
            const std::vector<float>& c = pool[clip++ % pool.size()];
            for (std::size_t i = 0; i < c.size(); ++i) {
                const std::ptrdiff_t k = at + static_cast<std::ptrdiff_t>(i);
                if (k >= 0 && k < static_cast<std::ptrdiff_t>(n)) {
                    x[static_cast<std::size_t>(k)] += static_cast<float>(gain) * c[i];
                }
            }
            at += static_cast<std::ptrdiff_t>(c.size()) +
                  static_cast<std::ptrdiff_t>((0.1 + 0.5 * unit(rng)) * r.rate);
        }
    }
    return x;
}

// Per channel: independent noise, but one hum (it comes down the cable).
std::vector<float> roomChannel(const Recipe& r, Clips& clips, std::size_t n, int channel) {
    std::mt19937 rng(r.seed * 31 + static_cast<std::uint32_t>(channel));
    const double seconds = static_cast<double>(n) / r.rate + 0.1;
    const auto noiseSeed = r.seed * 7 + static_cast<std::uint32_t>(channel);
    std::vector<float> x;
    switch (r.room) {
    case Room::pink:
    case Room::brown:
        x = test::pinkNoise(r.rate, 1, seconds, -20.0, noiseSeed).channels[0];
        if (r.room == Room::brown) {
            lowPass(x, 40.0, r.rate);
        }
        break;
    case Room::white:
        x = test::whiteNoise(r.rate, 1, seconds, -20.0, noiseSeed).channels[0];
        break;
    case Room::vent: {
        // Air through a duct: low rumble whose level drifts with the fan.
        x = test::whiteNoise(r.rate, 1, seconds, -20.0, noiseSeed).channels[0];
        lowPass(x, 180.0, r.rate);
        lowPass(x, 400.0, r.rate);
        for (std::size_t i = 0; i < x.size(); ++i) {
            const double t = static_cast<double>(i) / r.rate;
            x[i] *= static_cast<float>(1.0 + 0.35 * sine(0.13, t) + 0.15 * sine(0.31, t, 1.0));
        }
        break;
    }
    case Room::hum50:
    case Room::hum60: {
        // 50 Hz mains hums softly; 60 Hz here buzzes, its odd harmonics strong.
        const bool buzz = r.room == Room::hum60;
        const double f0 = buzz ? 60.0 : 50.0;
        const std::vector<double> harmonics =
            buzz ? std::vector<double>{1.0, 0.3, 0.8, 0.2, 0.5, 0.1, 0.35, 0.05, 0.2}
                 : std::vector<double>{1.0, 0.6, 0.3, 0.15};
        x.resize(n);
        for (std::size_t i = 0; i < n; ++i) {
            const double t = static_cast<double>(i) / r.rate;
            double v = 0.0;
            for (std::size_t h = 0; h < harmonics.size(); ++h) {
                const double hz = f0 * static_cast<double>(h + 1);
                if (hz < 0.45 * r.rate) {
                    v += harmonics[h] * sine(hz, t, static_cast<double>(h));
                }
            }
            x[i] = static_cast<float>(v);
        }
        break;
    }
    case Room::babble:
        x = babble(r, clips, n, rng);
        break;
    }
    x.resize(n);
    scaleToRms(x, r.roomDb);
    return x;
}

// Chords that change every two seconds, notes swelling on their own, and a
// soft low pulse on the beat.
std::vector<float> chords(std::size_t n, double rate, std::mt19937& rng) {
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<float> x(n);
    const auto chord = static_cast<std::size_t>(2.0 * rate);
    for (std::size_t start = 0; start < n; start += chord) {
        const double root = 110.0 * std::pow(2.0, std::floor(unit(rng) * 12.0) / 12.0);
        for (const double ratio : {1.0, 1.26, 1.5, 2.0, 3.0}) {
            const double swell = 0.3 + unit(rng);
            for (std::size_t i = start; i < std::min(n, start + chord); ++i) {
                const double t = static_cast<double>(i - start) / rate;
                x[i] += static_cast<float>(sine(root * ratio, t) * (0.6 + 0.4 * sine(swell, t)) /
                                           ratio);
            }
        }
    }
    const auto beat = static_cast<std::size_t>(0.5 * rate);
    for (std::size_t i = 0; i < n; ++i) {
        const double t = static_cast<double>(i % beat) / rate;
        x[i] += static_cast<float>(1.5 * std::exp(-t / 0.08) * sine(60.0, t));
    }
    return x;
}

// Sustained, slowly rising and falling chords of detuned voices: no beat and
// no gap, a bed a level-tracker cannot tell from a steady floor.
std::vector<float> pads(std::size_t n, double rate, std::mt19937& rng) {
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<float> x(n);
    const double attack = 2.0;
    for (double start = 0.0; start * rate < static_cast<double>(n);) {
        const double length = 6.0 + 3.0 * unit(rng);
        const double root = 130.0 * std::pow(2.0, std::floor(unit(rng) * 7.0) / 12.0);
        const auto from = static_cast<std::size_t>(start * rate);
        const auto to = std::min(n, static_cast<std::size_t>((start + length + attack) * rate));
        for (const double ratio : {1.0, 1.2, 1.5, 2.0}) {
            for (const double detune : {0.997, 1.0, 1.003}) {
                const double phase = 6.28 * unit(rng);
                for (std::size_t i = from; i < to; ++i) {
                    const double t = static_cast<double>(i - from) / rate;
                    const double rise = std::min(1.0, t / attack);
                    const double fall = std::clamp((length + attack - t) / attack, 0.0, 1.0);
                    const double hz = root * ratio * detune;
                    x[i] += static_cast<float>(
                        rise * fall * (sine(hz, t, phase) + 0.3 * sine(2.0 * hz, t)) / ratio);
                }
            }
        }
        start += length;
    }
    return x;
}

// A one-bar loop: kick on one and three, snare on two and four, closed hats
// on the eighths.
std::vector<float> drums(std::size_t n, double rate, std::mt19937& rng) {
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const double beatSeconds = 60.0 / (100.0 + 20.0 * unit(rng));
    const auto bar = static_cast<std::size_t>(4.0 * beatSeconds * rate);
    std::vector<float> noise =
        test::whiteNoise(rate, 1, static_cast<double>(bar) / rate + 0.1, -10.0, rng()).channels[0];
    std::vector<float> hiss = noise;
    highPass(hiss, 5000.0, rate);
    std::vector<float> loop(bar);
    for (std::size_t i = 0; i < bar; ++i) {
        const double t = static_cast<double>(i) / rate;
        const double inBeat = std::fmod(t, beatSeconds);
        const int beat = static_cast<int>(t / beatSeconds);
        const double inEighth = std::fmod(t, beatSeconds / 2.0);
        double v = 0.0;
        if (beat % 2 == 0) {
            // The pitch falls from 120 Hz towards 45 Hz: the phase integrates it.
            const double phase = 2.0 * std::numbers::pi *
                                 (45.0 * inBeat + 75.0 * 0.03 * (1.0 - std::exp(-inBeat / 0.03)));
            v += 1.2 * std::exp(-inBeat / 0.15) * std::sin(phase);
        } else {
            v += std::exp(-inBeat / 0.12) * (1.5 * noise[i] + 0.4 * sine(180.0, inBeat));
        }
        v += 0.8 * std::exp(-inEighth / 0.03) * hiss[i];
        loop[i] = static_cast<float>(v);
    }
    std::vector<float> x(n);
    for (std::size_t i = 0; i < n; ++i) {
        x[i] = loop[i % bar];
    }
    return x;
}

// Breaths before a sentence and mouth clicks anywhere in a pause: short
// sounds a detector must not take for speech nor for the floor.
void addBreathsAndClicks(std::vector<float>& x, const Recipe& r, const std::vector<Span>& pauses) {
    std::mt19937 rng(r.seed * 17);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const double breathGain = std::pow(10.0, r.breathDb / 20.0);
    const double clickGain = std::pow(10.0, (r.breathDb + 15.0) / 20.0);
    for (const Span& p : pauses) {
        const double seconds = static_cast<double>(p.end - p.begin) / r.rate;
        if (seconds >= 0.8 && unit(rng) < 0.7) {
            const double length = 0.25 + 0.25 * unit(rng);
            std::vector<float> breath = test::whiteNoise(r.rate, 1, length, 0.0, rng()).channels[0];
            highPass(breath, 400.0, r.rate);
            lowPass(breath, 2500.0, r.rate);
            scaleToRms(breath, 0.0);
            const std::size_t end = p.end - static_cast<std::size_t>(0.1 * r.rate);
            const std::size_t begin = end - std::min(end - p.begin, breath.size());
            for (std::size_t i = begin; i < end; ++i) {
                const double w = std::sin(std::numbers::pi * static_cast<double>(i - begin) /
                                          static_cast<double>(end - begin));
                x[i] += static_cast<float>(breathGain * w * w * breath[i - begin]);
            }
        }
        const int clicks = static_cast<int>(unit(rng) * 3.0);
        for (int c = 0; c < clicks; ++c) {
            const auto at = p.begin + static_cast<std::size_t>(
                                          unit(rng) * static_cast<double>(p.end - p.begin));
            const double sign = unit(rng) < 0.5 ? -1.0 : 1.0;
            for (std::size_t i = 0; i < static_cast<std::size_t>(0.004 * r.rate) && at + i < p.end;
                 ++i) {
                const double t = static_cast<double>(i) / r.rate;
                x[at + i] +=
                    static_cast<float>(sign * clickGain * std::exp(-t / 0.0008) * sine(2500.0, t));
            }
        }
    }
}

struct Programme {
    std::vector<std::vector<float>> speech; // per speaker, mono, the whole length
    Labels labels;
};

Programme speak(const Recipe& r, Clips& clips) {
    std::mt19937 rng(r.seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const std::size_t speakers = r.speakers.size();
    Programme p;
    p.speech.assign(speakers, std::vector<float>(static_cast<std::size_t>(1.0 * r.rate)));
    p.labels.speakers.resize(speakers);
    std::size_t at = p.speech[0].size();
    std::vector<std::size_t> next(speakers);
    for (std::size_t k = 0; k < speakers; ++k) {
        next[k] = 5 * k; // speakers sharing a pool say different things
    }
    for (int sentence = 0; sentence < r.sentences; ++sentence) {
        const auto k = static_cast<std::size_t>(sentence / r.turn) % speakers;
        const auto& pool = clips.pool(r.speakers[k].pool);
        std::vector<float> clip = pool[next[k]++ % pool.size()];
        // Sentences of one speaker vary a little, as they do in a room.
        scale(clip,
              r.speakers[k].lufs + 3.0 * unit(rng) - 1.5 - pauses::integratedLufs(clip, r.rate));
        for (auto& s : p.speech) {
            s.resize(at + clip.size());
        }
        std::copy(clip.begin(), clip.end(), p.speech[k].begin() + static_cast<std::ptrdiff_t>(at));
        p.labels.speakers[k].push_back({at, at + clip.size()});
        at += clip.size();
        double pause = r.pauseMinSeconds + (r.pauseMaxSeconds - r.pauseMinSeconds) * unit(rng);
        if (sentence == r.sentences / 2 - 1 && r.longPauseSeconds > 0.0) {
            pause = r.longPauseSeconds;
        }
        // The programme ends a second after its last sentence, not in a pause.
        const auto samples =
            static_cast<std::size_t>((sentence + 1 < r.sentences ? pause : 1.0) * r.rate);
        if (sentence + 1 < r.sentences) {
            p.labels.pauses.push_back({at, at + samples});
        }
        at += samples;
    }
    for (auto& s : p.speech) {
        s.resize(at);
    }
    if (r.fadeDb > 0.0) {
        // The fade runs from the end of the first third of the sentences to
        // the start of the last third; its two "speakers" are those thirds.
        const std::vector<Span> sentences = p.labels.speakers[0];
        const auto third = static_cast<std::ptrdiff_t>(sentences.size() / 3);
        const std::size_t from = sentences[static_cast<std::size_t>(third - 1)].end;
        const std::size_t to = sentences[sentences.size() - static_cast<std::size_t>(third)].begin;
        for (std::size_t i = from; i < at; ++i) {
            const double done =
                std::min(1.0, static_cast<double>(i - from) / static_cast<double>(to - from));
            p.speech[0][i] *= static_cast<float>(std::pow(10.0, -r.fadeDb * done / 20.0));
        }
        p.labels.speakers = {{sentences.begin(), sentences.begin() + third},
                             {sentences.end() - third, sentences.end()}};
    }
    return p;
}

// Interleaved, as ffmpeg writes raw audio.
void writeRaw(const std::filesystem::path& path, const test::PlanarAudio& audio) {
    std::vector<float> x;
    x.reserve(audio.channels.size() * static_cast<std::size_t>(audio.frames()));
    for (std::int64_t i = 0; i < audio.frames(); ++i) {
        for (const auto& c : audio.channels) {
            x.push_back(c[static_cast<std::size_t>(i)]);
        }
    }
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(x.data()),
              static_cast<std::streamsize>(x.size() * sizeof(float)));
    if (!out) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

int mix(const Recipe& r, const std::filesystem::path& clipDir, const std::string& out) {
    Clips clips(clipDir, r.rate);
    Programme p = speak(r, clips);
    const std::size_t n = p.speech[0].size();
    std::vector<float> music;
    if (r.music != Music::none) {
        std::mt19937 rng(r.seed * 13);
        music = r.music == Music::chords ? chords(n, r.rate, rng)
                : r.music == Music::pads ? pads(n, r.rate, rng)
                                         : drums(n, r.rate, rng);
        scale(music, r.musicLufs - pauses::integratedLufs(music, r.rate));
    }
    test::PlanarAudio audio;
    audio.sampleRate = r.rate;
    for (int c = 0; c < r.channels; ++c) {
        std::vector<float> x = roomChannel(r, clips, n, c);
        if (r.breathDb < 0.0) {
            addBreathsAndClicks(x, r, p.labels.pauses);
        }
        // Sources are panned so that their power, and so their loudness, is
        // the same in mono and in stereo.
        for (std::size_t k = 0; k < p.speech.size(); ++k) {
            double gain = 1.0;
            if (r.channels == 2) {
                const double position = 0.25 * (static_cast<double>(k % 3) - 1.0) + 0.5;
                gain = c == 0 ? std::cos(position * std::numbers::pi / 2.0)
                              : std::sin(position * std::numbers::pi / 2.0);
            }
            for (std::size_t i = 0; i < n; ++i) {
                x[i] += static_cast<float>(gain) * p.speech[k][i];
            }
        }
        const auto musicGain = static_cast<float>(std::sqrt(1.0 / r.channels));
        for (std::size_t i = 0; i < music.size(); ++i) {
            x[i] += musicGain * music[i];
        }
        audio.channels.push_back(std::move(x));
    }
    test::floatWav(out + ".wav", audio);
    writeRaw(out + ".f32", audio);
    std::ofstream labelFile(out + ".labels");
    pauses::writeLabels(labelFile, p.labels);
    std::ofstream info(out + ".info");
    info << r.rate << ' ' << r.channels << '\n';
    return 0;
}

std::vector<float> monoOf(const std::vector<float>& interleaved, int channels) {
    std::vector<float> mono(interleaved.size() / static_cast<std::size_t>(channels));
    for (std::size_t i = 0; i < mono.size(); ++i) {
        double sum = 0.0;
        for (int c = 0; c < channels; ++c) {
            sum +=
                interleaved[i * static_cast<std::size_t>(channels) + static_cast<std::size_t>(c)];
        }
        mono[i] = static_cast<float>(sum / channels);
    }
    return mono;
}

// The plans the engine would make in both modes, from the project's own
// analysis: how far the noise-aware mode moves the ride.
double planDeviationDb(const Recipe& r, const std::vector<float>& interleaved, double target) {
    const auto channels = static_cast<std::size_t>(r.channels);
    const std::size_t frames = interleaved.size() / channels;
    std::vector<std::vector<float>> planar(channels, std::vector<float>(frames));
    std::vector<const float*> pointers;
    for (std::size_t c = 0; c < channels; ++c) {
        for (std::size_t i = 0; i < frames; ++i) {
            planar[c][i] = interleaved[i * channels + c];
        }
        pointers.push_back(planar[c].data());
    }
    FrameAnalyzer analyzer(r.rate, r.channels);
    analyzer.append(pointers, static_cast<std::int64_t>(frames));
    const FrameAnalysis analysis = std::move(analyzer).analysis();
    constexpr double ceilingDb = -1.0;
    const GainCurve exact =
        GainCurveBuilder::build(analysis, LevelingParameters::forTarget(target, false), ceilingDb);
    const GainCurve aware =
        GainCurveBuilder::build(analysis, LevelingParameters::forTarget(target, true), ceilingDb);
    double worst = 0.0;
    for (std::size_t i = 0; i < std::min(exact.gainDB.size(), aware.gainDB.size()); ++i) {
        worst = std::max(worst, std::abs(aware.gainDB[i] - exact.gainDB[i]));
    }
    return worst;
}

int measure(const Recipe& r, const std::string& stem, const std::filesystem::path& afterPath,
            double target) {
    std::ifstream labelFile(stem + ".labels");
    const Labels labels = pauses::readLabels(labelFile);
    const std::vector<float> before = readRaw(stem + ".f32");
    const std::vector<float> after = readRaw(afterPath);
    const std::vector<float> monoBefore = monoOf(before, r.channels);
    const std::vector<float> monoAfter = monoOf(after, r.channels);
    const bool gap = labels.speakers.size() > 1;
    const double nan = std::nan("");
    std::printf("%s %d %.2f %.2f %.2f %.2f %.1f %.1f %.2f\n", kindOf(r), isClean(r) ? 1 : 0,
                pauses::integratedLufs(after, r.rate, r.channels) - target,
                gap ? pauses::speakersGapLu(monoBefore, r.rate, labels) : nan,
                gap ? pauses::speakersGapLu(monoAfter, r.rate, labels) : nan,
                pauses::pauseRiseDb(monoBefore, monoAfter, r.rate, labels.pauses),
                pauses::loudnessRangeLu(before, r.rate, r.channels),
                pauses::loudnessRangeLu(after, r.rate, r.channels),
                pauses::truePeakDb(after, r.rate, r.channels));
    return 0;
}

// What counts as a pass, per column.
constexpr double riseLowDb = -3.0;
constexpr double riseHighDb = 1.0;
constexpr double speakersGapLu = 1.0;
constexpr double fadeGapLu = 0.5;
constexpr double loudnessErrorLu = 0.3;
constexpr double cleanDeviationDb = 0.5;

struct Row {
    std::string programme, method, kind;
    bool clean = false;
    double ierr = 0, gapBefore = 0, gapAfter = 0, rise = 0, lraBefore = 0, lraAfter = 0, tp = 0,
           dev = 0;
};

struct Score {
    int pass = 0;
    int of = 0;
    void count(bool ok) {
        pass += ok ? 1 : 0;
        ++of;
    }
};

int report(const std::string& title, const std::filesystem::path& results) {
    std::ifstream in(results);
    std::vector<Row> rows;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        Row row;
        std::string gb, ga, rise, dev;
        fields >> row.programme >> row.method >> row.kind >> row.clean >> row.ierr >> gb >> ga >>
            rise >> row.lraBefore >> row.lraAfter >> row.tp >> dev;
        if (!fields) {
            throw std::runtime_error("bad result line: " + line);
        }
        row.gapBefore = std::strtod(gb.c_str(), nullptr);
        row.gapAfter = std::strtod(ga.c_str(), nullptr);
        row.rise = std::strtod(rise.c_str(), nullptr);
        row.dev = std::strtod(dev.c_str(), nullptr);
        rows.push_back(row);
    }
    std::printf("\n%s\n\n", title.c_str());
    std::printf("%-12s %-11s %6s %14s %6s %13s %6s %7s\n", "programme", "method", "I err", "gap",
                "rise", "LRA", "TP", "dev");
    std::vector<std::string> methods;
    std::map<std::string, Score[4]> scores;
    for (const Row& row : rows) {
        if (std::find(methods.begin(), methods.end(), row.method) == methods.end()) {
            methods.push_back(row.method);
        }
        char gap[32] = "–";
        if (!std::isnan(row.gapBefore)) {
            std::snprintf(gap, sizeof gap, "%5.1f -> %4.1f", row.gapBefore, row.gapAfter);
        }
        char rise[16] = "–";
        if (!std::isnan(row.rise)) {
            std::snprintf(rise, sizeof rise, "%+6.1f", row.rise);
        }
        char dev[16] = "";
        if (row.method == "noise-aware") {
            std::snprintf(dev, sizeof dev, "%5.2f%s", row.dev, row.clean ? " c" : "");
        }
        // "–" is one column wide but three bytes long.
        std::printf("%-12s %-11s %+6.2f %*s %*s %5.1f -> %4.1f %+6.1f %7s\n", row.programme.c_str(),
                    row.method.c_str(), row.ierr, std::isnan(row.gapBefore) ? 16 : 14, gap,
                    std::isnan(row.rise) ? 8 : 6, rise, row.lraBefore, row.lraAfter, row.tp, dev);
        Score* s = scores[row.method];
        if (!std::isnan(row.rise)) {
            s[0].count(row.rise >= riseLowDb && row.rise <= riseHighDb);
        }
        if (!std::isnan(row.gapAfter)) {
            s[1].count(row.gapAfter <= (row.kind == "fade" ? fadeGapLu : speakersGapLu));
        }
        s[2].count(std::abs(row.ierr) <= loudnessErrorLu);
        if (row.clean && row.method == "noise-aware") {
            s[3].count(row.dev <= cleanDeviationDb);
        }
    }
    std::printf("\nprogrammes meeting each target: rise in [%+.0f, %+.0f] dB, gap <= %.1f LU "
                "(fade %.1f), |I err| <= %.1f LU, dev <= %.1f dB on clean (c) programmes\n",
                riseLowDb, riseHighDb, speakersGapLu, fadeGapLu, loudnessErrorLu, cleanDeviationDb);
    for (const std::string& method : methods) {
        const Score* s = scores[method];
        std::printf("  %-11s rise %2d/%-2d  gap %2d/%-2d  I %2d/%-2d", method.c_str(), s[0].pass,
                    s[0].of, s[1].pass, s[1].of, s[2].pass, s[2].of);
        if (s[3].of > 0) {
            std::printf("  dev %d/%d", s[3].pass, s[3].of);
        }
        std::printf("\n");
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> args(argv + 1, argv + argc);
        const std::size_t n = args.size();
        if (n >= 1 && n <= 2 && args[0] == "recipes") {
            for (const Recipe& r : recipes) {
                if (n == 1 || args[1] == halfName(r.half)) {
                    std::printf("%s\n", r.name);
                }
            }
            return 0;
        }
        if (n == 2 && args[0] == "describe") {
            const Recipe& r = findRecipe(args[1]);
            std::printf("v%d %s %s %g %d", generatorVersion, r.name, halfName(r.half), r.rate,
                        r.channels);
            for (const Speaker& s : r.speakers) {
                std::printf(" %s:%g", s.pool, s.lufs);
            }
            std::printf(" %d %d %g %g %g %g %d %g %d %g %g %u\n", r.sentences, r.turn,
                        r.pauseMinSeconds, r.pauseMaxSeconds, r.longPauseSeconds, r.fadeDb,
                        static_cast<int>(r.room), r.roomDb, static_cast<int>(r.music), r.musicLufs,
                        r.breathDb, r.seed);
            return 0;
        }
        if (n == 4 && args[0] == "mix") {
            return mix(findRecipe(args[1]), args[2], args[3]);
        }
        if (n == 3 && args[0] == "dev") {
            const std::string stem = args[1];
            const Recipe& r = findRecipe(std::filesystem::path(stem).filename().string());
            std::printf("%.2f\n",
                        planDeviationDb(r, readRaw(stem + ".f32"), std::atof(args[2].c_str())));
            return 0;
        }
        if (n == 4 && args[0] == "measure") {
            const std::string stem = args[1];
            return measure(findRecipe(std::filesystem::path(stem).filename().string()), stem,
                           args[2], std::atof(args[3].c_str()));
        }
        if (n == 3 && args[0] == "report") {
            return report(args[1], args[2]);
        }
        std::fprintf(stderr, "usage: pause_eval recipes [tune|held-out] | describe RECIPE | mix "
                             "RECIPE CLIPDIR OUT | dev OUT TARGET | measure OUT AFTER TARGET | "
                             "report TITLE RESULTS\n");
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "pause_eval: %s\n", error.what());
        return 1;
    }
}
