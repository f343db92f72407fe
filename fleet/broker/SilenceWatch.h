// An end for attempts to connect that the client's library would wait for without one: a broker that takes the
// connection, greets and says nothing more.
#pragma once

#include <chrono>
#include <cstddef>
#include <thread>

#include "base/Mutex.h"
#include "base/Result.h"

namespace fleet {

/// Cuts each TCP connection of this process over which nothing has come for that long. Whoever waits for it reads its
/// end. Returns: how many.
size_t CutSilentConnections(std::chrono::milliseconds silence);

/// While there is no connection to a broker it cuts those that stay silent; while there is one it sleeps: a broker that
/// falls silent then is noticed by the client's own pings.
/// Requires: all TCP connections of the process are to brokers, and answered pings keep a good one from being silent.
/// Thread-safety: any thread.
class SilenceWatch {
public:
    SilenceWatch() = default;
    ~SilenceWatch();
    SilenceWatch(const SilenceWatch&) = delete;
    SilenceWatch& operator=(const SilenceWatch&) = delete;

    base::Status Start();
    void SetConnected(bool isConnected);

private:
    void Watch();

    base::Mutex m_lock;
    base::Condition m_changed;
    bool m_isConnected ZEL_GUARDED_BY(m_lock) = false;
    bool m_ends ZEL_GUARDED_BY(m_lock) = false;
    std::thread m_thread;
};

}  // namespace fleet
