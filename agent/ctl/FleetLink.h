// What the console asks of a fleet's broker, through the relay's program: it is started as a child for one command and
// speaks JSON lines over pipes. The console itself knows no library of the broker.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "FleetAccess.h"
#include "base/Fd.h"
#include "base/Result.h"

namespace agent {

/// The most of one line that is read.
constexpr size_t kMostFleetLineBytes = 8UL << 20;

/// What came of a request that got an answer.
struct FleetAnswer {
    bool ok = false;
    Json::Value body;     ///< of one that is ok
    std::string error;    ///< a sentence otherwise, printable, with what to do where that is known
    std::string outcome;  ///< of a put that is not: "conflict", "refused", "unknown"
};

/// Thread-safety: one thread.
/// Lifetime: the child ends with it, and with this process however that ends.
class FleetLink {
public:
    /// Takes an entry of a list or stream. Returns: false when no more are wanted.
    using OnItem = std::function<bool(const Json::Value&)>;

    /// Starts the program and waits until it has reached a broker. Errors: one sentence: which program cannot be
    /// started, which broker is not reached and why.
    static base::Result<std::unique_ptr<FleetLink>> Open(const FleetAccess& access);
    ~FleetLink();
    FleetLink(const FleetLink&) = delete;
    FleetLink& operator=(const FleetLink&) = delete;

    /// Asks and waits for the end of the answer. Blocks: until nothing came for the patience of the access; a request
    /// that follows a stream ("follow") waits without an end. Errors: there is no answer, whatever was asked for may
    /// have been done.
    base::Result<FleetAnswer> Ask(Json::Value request, const OnItem& onItem = {});

    /// What the broker said of itself when it was reached: an object with "version" and "cluster".
    const Json::Value& Server() const { return m_server; }

private:
    explicit FleetLink(const FleetAccess& access) : m_servers(access.servers), m_patience(access.patience) {}
    base::Status Start(const FleetAccess& access);
    base::Status Greet();
    base::Status Send(const std::string& line);
    /// One line without its end. Errors: kNoServer when there will be none.
    base::Result<std::string> ReadLine(bool patient);
    base::Result<size_t> ReadMore(bool patient);
    void Hear();
    base::Error Ended();
    FleetAnswer Judge(Json::Value body) const;

    const std::string m_servers;
    const std::chrono::seconds m_patience;
    pid_t m_child = -1;
    base::Fd m_requests;
    base::Fd m_answers;
    base::Fd m_complaints;
    std::string m_text;  // what was read and not yet used
    size_t m_at = 0;
    std::string m_said;  // on its standard error
    Json::Value m_server;
    int m_number = 0;
};

/// A text of the broker's, or of a host's, for one line: printable, and at most `most` bytes of it.
std::string ShortText(const std::string& text, size_t most = 300);

}  // namespace agent
