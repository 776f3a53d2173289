// Writes a speech-like stereo programme as a 32-bit float WAV, for the
// end-to-end speed measurements: make_speech OUT.wav SECONDS [RATE]

#include "support/ReferenceMeters.h"
#include "support/Signals.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: make_speech OUT.wav SECONDS [RATE]\n");
        return 2;
    }
    try {
        const double seconds = std::atof(argv[2]);
        const double rate = argc > 3 ? std::atof(argv[3]) : 48000.0;
        ostrand::test::floatWav(argv[1], ostrand::test::speechLike(rate, 2, seconds, 2026));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "make_speech: %s\n", error.what());
        return 1;
    }
    return 0;
}
