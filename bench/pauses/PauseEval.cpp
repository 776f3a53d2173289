// The pause evaluation's two steps, driven by bench/pauses/run:
//   pause_eval mix RECIPE CLIPDIR OUT   builds programme OUT.wav and OUT.labels
//                                       from the sentences CLIPDIR/a00.f32 ...
//                                       (speaker a) and b00.f32 ... (speaker b),
//                                       48 kHz mono raw float
//   pause_eval measure LABELS BEFORE.f32 AFTER.f32 TARGET
//                                       prints the integrated loudness error,
//                                       speakers' gap before and after, pause
//                                       rise and loudness range before and after
// Everything is seeded: the same clips give the same programmes.

#include "PauseMetrics.h"

#include "support/ReferenceMeters.h"
#include "support/Signals.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace ostrand;
using pauses::Labels;
using pauses::Span;

constexpr double rate = 48000.0;

enum class Bed { pink, brown, music };

struct Recipe {
    const char* name;
    int speakers;      // 1 or 2, taking turns of three sentences
    double secondLufs; // the second speaker's loudness (the first is at -20)
    double fadeDb;     // the speech fades by this much mid-programme
    Bed bed;
    double bedLevel; // dBFS RMS for rooms, LUFS for music
    std::uint32_t seed;
};

const Recipe recipes[] = {
    {"clean-75", 2, -32.0, 0.0, Bed::pink, -75.0, 1},
    {"room-70", 2, -32.0, 0.0, Bed::pink, -70.0, 7},
    {"room-60", 2, -32.0, 0.0, Bed::pink, -60.0, 2},
    {"room-45", 2, -32.0, 0.0, Bed::pink, -45.0, 3},
    {"room-40", 2, -32.0, 0.0, Bed::brown, -40.0, 4},
    {"music-38", 1, -20.0, 0.0, Bed::music, -38.0, 5},
    {"fade-10", 1, -20.0, 10.0, Bed::pink, -50.0, 6},
};

std::vector<float> readRaw(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path.string());
    }
    std::vector<float> x;
    float v = 0.0f;
    while (in.read(reinterpret_cast<char*>(&v), sizeof v)) {
        x.push_back(v);
    }
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

// Chords that change every two seconds, notes swelling on their own, and a
// soft low pulse on the beat: enough movement to make a floor estimate work.
std::vector<float> musicBed(std::size_t n, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<float> x(n);
    const auto chord = static_cast<std::size_t>(2.0 * rate);
    for (std::size_t start = 0; start < n; start += chord) {
        const double root = 110.0 * std::pow(2.0, std::floor(unit(rng) * 12.0) / 12.0);
        for (const double ratio : {1.0, 1.26, 1.5, 2.0, 3.0}) {
            const double swell = 0.3 + unit(rng);
            for (std::size_t i = start; i < std::min(n, start + chord); ++i) {
                const double t = static_cast<double>(i - start) / rate;
                x[i] += static_cast<float>(
                    std::sin(2.0 * std::numbers::pi * root * ratio * t) *
                    (0.6 + 0.4 * std::sin(2.0 * std::numbers::pi * swell * t)) / ratio);
            }
        }
    }
    const auto beat = static_cast<std::size_t>(0.5 * rate);
    for (std::size_t i = 0; i < n; ++i) {
        const double t = static_cast<double>(i % beat) / rate;
        x[i] += static_cast<float>(1.5 * std::exp(-t / 0.08) *
                                   std::sin(2.0 * std::numbers::pi * 60.0 * t));
    }
    return x;
}

std::vector<float> roomNoise(Bed bed, std::size_t n, std::uint32_t seed) {
    const double seconds = static_cast<double>(n) / rate;
    std::vector<float> x = test::pinkNoise(rate, 1, seconds, -20.0, seed).channels[0];
    if (bed == Bed::brown) {
        // A leaky integral of pink: the rumble of a room, ventilation.
        double y = 0.0;
        for (float& v : x) {
            y = 0.995 * y + static_cast<double>(v);
            v = static_cast<float>(y);
        }
    }
    x.resize(n);
    return x;
}

int mix(const std::string& recipeName, const std::filesystem::path& clips, const std::string& out) {
    const Recipe* recipe = nullptr;
    for (const Recipe& r : recipes) {
        if (recipeName == r.name) {
            recipe = &r;
        }
    }
    if (!recipe) {
        throw std::runtime_error("unknown recipe " + recipeName);
    }
    std::mt19937 rng(recipe->seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<float> speech(static_cast<std::size_t>(1.0 * rate)); // lead-in
    Labels labels;
    labels.speakers.resize(static_cast<std::size_t>(recipe->speakers));
    for (int sentence = 0; sentence < 16; ++sentence) {
        const int speaker = recipe->speakers == 2 ? (sentence / 3) % 2 : 0;
        char name[16];
        std::snprintf(name, sizeof name, "%c%02d.f32", speaker == 0 ? 'a' : 'b', sentence);
        std::vector<float> clip = readRaw(clips / name);
        scale(clip,
              (speaker == 0 ? -20.0 : recipe->secondLufs) - pauses::integratedLufs(clip, rate));
        const std::size_t begin = speech.size();
        speech.insert(speech.end(), clip.begin(), clip.end());
        labels.speakers[static_cast<std::size_t>(speaker)].push_back({begin, speech.size()});
        const auto pause = static_cast<std::size_t>((1.5 + 2.5 * unit(rng)) * rate);
        labels.pauses.push_back({speech.size(), speech.size() + pause});
        speech.resize(speech.size() + pause);
    }
    if (recipe->fadeDb > 0.0) {
        // The speech fades between its fifth sentence and its twelfth; the
        // fade's "speakers" are the five sentences before and the five after.
        const std::vector<Span> sentences = labels.speakers[0];
        const std::size_t from = sentences[4].end;
        const std::size_t to = sentences[11].begin;
        for (std::size_t i = from; i < speech.size(); ++i) {
            const double done =
                std::min(1.0, static_cast<double>(i - from) / static_cast<double>(to - from));
            speech[i] *= static_cast<float>(std::pow(10.0, -recipe->fadeDb * done / 20.0));
        }
        labels.speakers = {{sentences.begin(), sentences.begin() + 5},
                           {sentences.end() - 5, sentences.end()}};
    }
    std::vector<float> bed = recipe->bed == Bed::music
                                 ? musicBed(speech.size(), recipe->seed)
                                 : roomNoise(recipe->bed, speech.size(), recipe->seed);
    if (recipe->bed == Bed::music) {
        scale(bed, recipe->bedLevel - pauses::integratedLufs(bed, rate));
    } else {
        scaleToRms(bed, recipe->bedLevel);
    }
    test::PlanarAudio audio;
    audio.sampleRate = rate;
    audio.channels.push_back(speech);
    for (std::size_t i = 0; i < speech.size(); ++i) {
        audio.channels[0][i] += bed[i];
    }
    test::writeFloatWav(out + ".wav", audio);
    std::ofstream labelFile(out + ".labels");
    pauses::writeLabels(labelFile, labels);
    return 0;
}

int measure(const std::filesystem::path& labelPath, const std::filesystem::path& beforePath,
            const std::filesystem::path& afterPath, double target) {
    std::ifstream labelFile(labelPath);
    const Labels labels = pauses::readLabels(labelFile);
    const std::vector<float> before = readRaw(beforePath);
    const std::vector<float> after = readRaw(afterPath);
    std::printf("%.2f %.2f %.2f %.2f %.1f %.1f\n", pauses::integratedLufs(after, rate) - target,
                pauses::speakersGapLu(before, rate, labels),
                pauses::speakersGapLu(after, rate, labels),
                pauses::pauseRiseDb(before, after, rate, labels.pauses),
                pauses::loudnessRangeLu(before, rate), pauses::loudnessRangeLu(after, rate));
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> args(argv + 1, argv + argc);
        if (args.size() == 4 && args[0] == "mix") {
            return mix(args[1], args[2], args[3]);
        }
        if (args.size() == 5 && args[0] == "measure") {
            return measure(args[1], args[2], args[3], std::atof(args[4].c_str()));
        }
        if (args.size() == 1 && args[0] == "recipes") {
            for (const Recipe& r : recipes) {
                std::printf("%s\n", r.name);
            }
            return 0;
        }
        std::fprintf(stderr, "usage: pause_eval mix RECIPE CLIPDIR OUT | measure LABELS BEFORE "
                             "AFTER TARGET | recipes\n");
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "pause_eval: %s\n", error.what());
        return 1;
    }
}
