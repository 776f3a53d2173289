#pragma once

#include <cstdint>

// Single-precision reductions over contiguous samples. Each keeps eight
// partial results that are combined in a fixed order, so the compiler can
// vectorize them while every call over the same samples returns the same bits.

namespace ostrand::VectorOps {

float sumOfSquares(const float* x, std::int64_t count) noexcept;
float maxMagnitude(const float* x, std::int64_t count) noexcept;

} // namespace ostrand::VectorOps
