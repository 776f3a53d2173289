#include "Check.h"

#include <cstdio>
#include <cstdlib>

namespace ostrand::detail {

void failPrecondition(const char* expression, const char* file, int line,
                      const char* message) noexcept {
    std::fprintf(stderr, "%s:%d: precondition failed: %s (%s)\n", file, line, message, expression);
    std::fflush(stderr);
    std::abort();
}

} // namespace ostrand::detail
