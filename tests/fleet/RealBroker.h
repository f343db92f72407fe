// A broker of the distribution as a process of a test: loopback, a port of its own, its store in a temporary directory.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/Files.h"

struct __natsConnection;
struct __jsCtx;
struct __natsSubscription;

namespace fleet {

class RealBroker {
public:
    /// Returns: whether the broker's program is on this machine.
    static bool IsInstalled();

    /// `more`: further lines of its configuration. Users "admin" and "h1", password "pw", who may do everything, where
    /// it names none; who says no name is "h1".
    explicit RealBroker(std::string more = "");
    /// Kills it. The store goes with the test.
    ~RealBroker();
    RealBroker(const RealBroker&) = delete;
    RealBroker& operator=(const RealBroker&) = delete;

    /// Starts it, at its second start on the same port. Returns: false when it is not ready in time.
    bool Start();
    /// Has the next start read other lines of configuration.
    void Become(const std::string& more) { m_more = more; }
    /// kill -9, and waits for the end.
    void Kill();
    std::string Url(const std::string& user, const std::string& scheme = "nats") const;
    /// Without a user.
    std::string Address() const;
    int Port() const { return m_port; }
    std::string operator/(const std::string& name) const { return m_directory / name; }

private:
    int ReadPort() const;

    support::TempDir m_directory;
    std::string m_more;
    int m_port = -1;
    pid_t m_pid = -1;
};

/// A connection that makes streams and reads them.
class BrokerAdmin {
public:
    explicit BrokerAdmin(const RealBroker& broker);
    ~BrokerAdmin();
    BrokerAdmin(const BrokerAdmin&) = delete;
    BrokerAdmin& operator=(const BrokerAdmin&) = delete;

    /// Makes or replaces the stream of events. `most`: messages that it takes, then it is full; 0: any number.
    bool MakeStream(int64_t most = 0);
    /// Makes the stream of a bucket of keys.
    bool MakeBucket(const std::string& bucket);
    bool RemoveStream();
    /// Listens to the subject, and never answers.
    bool Hold(const std::string& subject);
    struct Stored {
        std::string subject, id, first, payload;
    };
    /// Every message of the stream, in its order.
    std::vector<Stored> ReadAll();

private:
    __natsConnection* m_connection = nullptr;
    __jsCtx* m_stream = nullptr;
    __natsSubscription* m_held = nullptr;
};

}  // namespace fleet
