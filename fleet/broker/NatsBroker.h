// The broker's client (libnats) behind the answers that the rule knows: one connection, synchronous requests. Nothing
// is published asynchronously and nothing waits in the client: what is not answered stays with its owner.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Result.h"
#include "broker/Inbox.h"
#include "broker/ServerInfo.h"
#include "rule/PublishRule.h"

namespace fleet {

struct BrokerOptions {
    std::vector<std::string> servers;  ///< "nats://host:port", "tls://host:port"
    std::string host;                  ///< this host's name, not yet escaped
    std::string token;                 ///< what its answers come to, "_INBOX.<token>."; empty: the name, escaped
    std::string caFile;                ///< with it only servers of this authority count, and their name is checked
    /// Of this host (scripts/fleet-enrol); empty: none. It and its place belong to root or this user, and it is nobody
    /// else's to read. Read anew with each connection.
    std::string credsFile;
    std::string stream = "EVENTS";
    int64_t requestMs = 5000;    ///< how long an answer is waited for
    int64_t reconnectMs = 1000;  ///< between two attempts, and as much again by chance
};

/// What goes to the stream.
struct BrokerMessage {
    std::string subject;
    std::string id;     ///< of its last event
    int64_t first = 0;  ///< number of its first event, as a header
    const std::string* payload = nullptr;
    uint64_t expected = 0;  ///< sequence of the subject's last message; 0: there is none
};

/// The last message of a subject, as its stream has it.
struct StoredMessage {
    std::string id;       ///< as its sender called it; empty: not at all
    std::string removal;  ///< why there is no value any more, in the broker's word; empty: there is one
    std::string payload;
    int64_t timeMs = 0;  ///< since the epoch, by the broker's clock
};

/// What goes to a stream that is kept by subject.
struct PlainMessage {
    std::string stream;
    std::string subject;
    std::string operation;  ///< header of a key that is taken away; empty: none
    std::string payload;
    std::optional<uint64_t> expected;  ///< sequence of the subject's last message, 0: there is none; empty: any
};

/// Thread-safety: requests and queries from any thread.
/// Lifetime: connects in the background and goes on trying for as long as it lives. Where the broker has refused this
/// host the library ends that: from then on an attempt is made with a request, every few seconds at most.
class NatsBroker {
public:
    /// Errors: an option that cannot be used; a broker that is not there is none.
    static base::Result<std::unique_ptr<NatsBroker>> Open(const BrokerOptions& options);
    ~NatsBroker();
    NatsBroker(const NatsBroker&) = delete;
    NatsBroker& operator=(const NatsBroker&) = delete;

    /// Blocks: at most `requestMs`; without a connection for as long as an attempt to make one takes, now and then.
    Answer Publish(const BrokerMessage& message);
    /// The subject's last message. Blocks: as above.
    Answer ReadLast(const std::string& subject);

    /// The subject's last message in any stream that allows direct reads. Blocks: as above. `message` is set with kOk.
    Answer Read(const std::string& stream, const std::string& subject, StoredMessage& message);
    /// Stores it, and waits until the broker says so. Blocks: as above.
    Answer Put(const PlainMessage& message);

    /// As Read, and asked of the stream's leader: no replica that lags behind answers. Needs another right.
    Answer ReadNewest(const std::string& stream, const std::string& subject, StoredMessage& message);
    /// Asks one of the broker's services. Blocks: as above. `reply` is set with kOk.
    Answer Ask(const std::string& subject, const std::string& body, std::string& reply);
    /// Opens a place of its own for many answers to one request, on the connection that there is now.
    /// Returns: nothing where there is none.
    std::unique_ptr<Inbox> OpenInbox();

    /// Calls `news` whenever there is another connection, and whenever a message comes on one of the subjects: not
    /// which, and not what is in it. `news` is entered on the library's threads, must return at once and not call back.
    /// Another call takes the place of the one before: after it with nothing, `news` is entered no more.
    /// Errors: the library refuses a subject.
    base::Status Listen(const std::vector<std::string>& subjects, std::function<void()> news);
    /// Returns: the broker's words where it has refused one of those subjects; empty: it has not.
    std::string ListenRefused() const;

    /// Whether the broker at the other end may be used; asked once for each connection. Blocks: as an attempt to
    /// connect. Errors: kRefused for one that is too old; others where it does not say what it is, or there is none.
    base::Status Judge();

    /// What the broker at the other end says of itself. Blocks: as an attempt to connect.
    base::Result<ServerInfo> Greeting();
    bool IsConnected() const;
    /// Why there is no connection. Blocks: as an attempt to connect, every few seconds at most.
    std::string WhyNot();
    /// Returns: how many connections there have been; another one makes what was known of the stream unsure.
    uint64_t Connections() const;
    const std::string& Host() const;

private:
    struct Link;
    struct Impl;
    explicit NatsBroker(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};

/// Returns: the sequence that the text of a wrong expectation names; 0: none.
uint64_t SequenceInText(const std::string& text);

}  // namespace fleet
