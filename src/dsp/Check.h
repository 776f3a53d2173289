#pragma once

// Always-on precondition checks for the signal-processing code. A broken
// precondition is a programming error: the program stops with a message
// instead of carrying corrupt numbers into a written file.

namespace ostrand::detail {

[[noreturn]] void failPrecondition(const char* expression, const char* file, int line,
                                   const char* message) noexcept;

} // namespace ostrand::detail

#define OSTRAND_REQUIRE(condition, message)                                                        \
    ((condition) ? static_cast<void>(0)                                                            \
                 : ::ostrand::detail::failPrecondition(#condition, __FILE__, __LINE__, message))
