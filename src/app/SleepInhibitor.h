#pragma once

#include <QString>

namespace ostrand {

// Keeps the machine from idle sleep while a job runs. Main thread only; every
// begin is matched by exactly one end with its cookie.
class SleepInhibitor {
public:
    using Cookie = unsigned long long;

    virtual ~SleepInhibitor() = default;
    virtual Cookie begin(const QString& reason) = 0;
    virtual void end(Cookie cookie) = 0;
};

} // namespace ostrand
