#pragma once

// What the parts of the writer share: its errors, in words.

#include "AvPtr.h"
#include "OstrandError.h"

#include <string>

namespace ostrand::writer {

[[noreturn]] inline void fail(const std::string& message) {
    throw OstrandError::writerFailed(message);
}

inline void check(int result, const std::string& context) {
    if (result < 0) {
        fail(context.empty() ? avErrorText(result) : context + ": " + avErrorText(result));
    }
}

} // namespace ostrand::writer
