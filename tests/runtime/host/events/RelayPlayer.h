// A relay that answers as a test says, at a real socket: whole, in pieces, not at all, or by closing.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/LocalSocket.h"
#include "local/RelayFrames.h"

namespace support {

/// What the relay does with one batch.
struct Reply {
    std::string bytes;   ///< written as they are
    bool torn = false;   ///< byte by byte
    bool close = false;  ///< then the connection is closed
};

Reply Stored(int64_t number);
Reply GoBackTo(int64_t number);
Reply Later(int64_t pauseMs, fleet::State state, const std::string& reason);
Reply NoAnswer();
Reply Closing();

/// Thread-safety: any thread.
class RelayPlayer {
public:
    using Play = std::function<Reply(const fleet::BatchFrame&)>;
    /// Serves `path`, for which a directory is made. `user`: who seems to listen, where the process is root.
    RelayPlayer(const std::string& path, Play play, uid_t user = 0);
    ~RelayPlayer();
    RelayPlayer(const RelayPlayer&) = delete;
    RelayPlayer& operator=(const RelayPlayer&) = delete;

    std::vector<fleet::BatchFrame> Batches();
    int Connections() const { return m_connections; }
    /// Says something on the connection that there is.
    void Say(const std::string& bytes);
    /// Reads nothing while it is on.
    void Sleep(bool on) { m_asleep = on; }

private:
    void Run();
    void SetClient(int client);
    /// Returns: false where the connection is to be closed.
    bool Serve(int client, fleet::FrameReader& reader);

    const Play m_play;
    base::Fd m_listener;
    std::string m_path;
    std::atomic<bool> m_stop{false}, m_asleep{false};
    std::atomic<int> m_connections{0};
    std::mutex m_lock;
    std::vector<fleet::BatchFrame> m_batches;
    int m_client = -1;
    std::thread m_thread;
};

/// The numbers of the events that a batch carries, by their ids.
std::vector<int64_t> NumbersOf(const fleet::BatchFrame& batch);

}  // namespace support
