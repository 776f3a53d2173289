#include "VectorOps.h"

#include <cmath>

namespace ostrand::VectorOps {

namespace {
constexpr int lanes = 8;
}

float sumOfSquares(const float* x, std::int64_t count) noexcept {
    float acc[lanes] = {};
    std::int64_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        for (int k = 0; k < lanes; ++k) {
            acc[k] += x[i + k] * x[i + k];
        }
    }
    for (int k = 0; i < count; ++i, ++k) {
        acc[k] += x[i] * x[i];
    }
    return ((acc[0] + acc[4]) + (acc[1] + acc[5])) + ((acc[2] + acc[6]) + (acc[3] + acc[7]));
}

float maxMagnitude(const float* x, std::int64_t count) noexcept {
    float acc[lanes] = {};
    std::int64_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        for (int k = 0; k < lanes; ++k) {
            const float m = std::fabs(x[i + k]);
            acc[k] = acc[k] < m ? m : acc[k];
        }
    }
    for (int k = 0; i < count; ++i, ++k) {
        const float m = std::fabs(x[i]);
        acc[k] = acc[k] < m ? m : acc[k];
    }
    float best = acc[0];
    for (int k = 1; k < lanes; ++k) {
        best = best < acc[k] ? acc[k] : best;
    }
    return best;
}

} // namespace ostrand::VectorOps
