#pragma once

#include <chrono>

namespace ostrand {

// Adds the time a scope takes to a running total, in seconds.
class Stopwatch {
public:
    explicit Stopwatch(double& total) noexcept
        : m_total(total)
        , m_start(std::chrono::steady_clock::now()) {}
    ~Stopwatch() {
        m_total +=
            std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    }
    Stopwatch(const Stopwatch&) = delete;
    Stopwatch& operator=(const Stopwatch&) = delete;

private:
    double& m_total;
    std::chrono::steady_clock::time_point m_start;
};

} // namespace ostrand
