// Broadcast between the processes of one agent: the main process sends, every component listens, and now and then says
// in a few words how it is. Local packets only, over a socket file in the application directory; root or the agent's
// own user, nobody else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/zel/Export.h"

namespace zel {

/// Bounds of one message; a longer one is refused by the sender.
constexpr size_t kIpcMaxTypeBytes = 128;
constexpr size_t kIpcMaxBodyBytes = 64 * 1024;
/// Bound of what a subscriber says at once.
constexpr size_t kIpcMaxReportBytes = 64;

/// The sending side, one per agent, in the main process.
/// The latest message of each type is kept and given to whoever connects later, so that a component that starts or
/// restarts after a change hears of it.
/// Thread-safety: every operation may be called from any thread.
/// Lifetime: the destructor stops the server. Not to be used on the child's side of a fork.
class ZEL_API CIpcBroadcastServer {
public:
    CIpcBroadcastServer();
    ~CIpcBroadcastServer();
    CIpcBroadcastServer(const CIpcBroadcastServer&) = delete;
    CIpcBroadcastServer& operator=(const CIpcBroadcastServer&) = delete;

    /// Takes what a subscriber says, and which process it is by the kernel's word. Runs on the
    /// process's loop and must not block.
    /// Returns: whether that was anything; who says something else is thrown out, and so is who talks all the time.
    using Report = std::function<bool(int pid, const std::string& text)>;
    /// To be called before Start. Without it a subscriber that says anything is thrown out.
    void SetReport(Report report);

    /// Makes the socket `path` (mode 0600) and starts serving. A socket left by a process that is gone is replaced.
    /// On failure: false with the reason in `error`; also when another process serves that path.
    bool Start(const std::string& path, std::string& error);

    /// Closes every connection and removes the socket. Blocks: until a report that is being taken is.
    void Stop();

    /// Queues one message for every subscriber. Never waits for one: a subscriber that does not read loses its
    /// oldest messages beyond a bound, and one that already has the same message waiting is not given it twice.
    /// Returns: false when the server does not run or the message is too long or has no type.
    bool Broadcast(const std::string& type, const std::string& body);

    /// Returns: connected subscribers; messages that were dropped for slow ones so far.
    size_t GetSubscriberCount();
    uint64_t GetDroppedCount();

private:
    struct ZEL_HIDDEN Impl;
    std::unique_ptr<Impl> m_impl;
};

/// The listening side, one per component.
/// Thread-safety: Start and Stop from one thread, not from the callback; the callback runs on a thread that is there
/// while there are messages, one call at a time; it may block.
/// Lifetime: the destructor stops it.
class ZEL_API CIpcBroadcastSubscriber {
public:
    using Callback = std::function<void(const std::string& type, const std::string& body)>;

    CIpcBroadcastSubscriber();
    ~CIpcBroadcastSubscriber();
    CIpcBroadcastSubscriber(const CIpcBroadcastSubscriber&) = delete;
    CIpcBroadcastSubscriber& operator=(const CIpcBroadcastSubscriber&) = delete;

    /// Listens to the server at `path` and calls back for each message, in order. Connects as soon as there is a
    /// server and again whenever it went away. A server of another user is not listened to.
    /// Returns: false when it runs already or the process has no loop.
    bool Start(const std::string& path, Callback callback);

    /// Blocks: until a callback that runs has returned.
    void Stop();

    bool IsConnected();

    /// Says something to the server. Never waits. Any thread.
    /// Returns: false when there is no server now, or it does not take it; to be tried again.
    bool Report(const std::string& text);

private:
    struct ZEL_HIDDEN Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace zel
