#pragma once

#include <mutex>

namespace ostrand {

// The one piece of state the engine's worker shares with the main thread: a
// flag that starts false and, once set, stays set. Safe to use from any
// thread; the lock is held for a single load or store and nothing is called
// under it.
class CancelToken {
public:
    void cancel() {
        const std::lock_guard lock(m_mutex);
        m_flag = true;
    }

    bool isCancelled() const {
        const std::lock_guard lock(m_mutex);
        return m_flag;
    }

private:
    mutable std::mutex m_mutex;
    bool m_flag = false;
};

} // namespace ostrand
