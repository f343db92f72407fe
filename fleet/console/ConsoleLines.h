// The lines between a console's program and this one: requests are read and bounded, answers are written. Pure.
//
// A request is one JSON object on a line. Each gets exactly one last answer, with "ok" or "error", after any number of
// items. A line that carries no id of its own is answered with the id 0.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Result.h"
#include "broker/KeyValue.h"
#include "broker/ServerInfo.h"
#include "console/StreamSetup.h"

namespace fleet {

constexpr size_t kMostRequestBytes = 256 << 10;
constexpr size_t kMostAnswerBytes = 8 << 20;

enum class ConsoleOp { kInfo, kKeys, kHistory, kGet, kPut, kEvents, kStream, kSetup, kCancel };

struct ConsoleRequest {
    int64_t id = 0;
    ConsoleOp op = ConsoleOp::kInfo;
    std::string bucket, key;
    std::optional<std::string> value;  ///< put: nothing takes the key away
    std::optional<uint64_t> expected;  ///< put: the key's revision, 0: it is not there; nothing: whatever it has
    std::string subject;               ///< events: which
    std::string stream = "EVENTS";     ///< events, stream
    std::optional<double> since;       ///< events: seconds since the epoch; nothing: from the oldest
    bool follow = false;
    int64_t target = 0;  ///< cancel
    SetupWish setup;
};

struct ParsedRequest {
    int64_t id = 0;  ///< as far as it could be read
    base::Result<ConsoleRequest> request;
};

/// Errors: a sentence for whoever wrote the line.
ParsedRequest ParseConsoleRequest(std::string_view line);

/// Cuts what comes into lines. Holds no more than one line within the bound.
class RequestLines {
public:
    struct Line {
        std::string text;
        bool isTooLong = false;  ///< beyond the bound: the line is gone, up to its end
    };
    void Add(std::string_view bytes, std::vector<Line>& lines);
    /// The end of the input: what has no line end is a line as well.
    void End(std::vector<Line>& lines);
    size_t Kept() const { return m_kept.size(); }

private:
    std::string m_kept;
    bool m_skips = false;
};

/// What a reader is told of one event message. Its time is the broker's.
struct EventItem {
    std::string subject;
    uint64_t sequence = 0;
    int64_t timeNs = 0;
    std::string messageId;
    int64_t first = 0;  ///< number of its first event; 0: not said
    std::string payload;
};

struct StreamReplica {
    std::string name;
    bool current = false;
    bool offline = false;
    uint64_t lag = 0;
};

/// What the broker says of a stream. Times are seconds since the epoch, 0: there is no message.
struct StreamReport {
    uint64_t messages = 0, bytes = 0, firstSequence = 0, lastSequence = 0, subjects = 0;
    double firstTime = 0, lastTime = 0;
    int64_t maxBytes = -1, maxMessages = -1;  ///< -1: no bound
    std::string discard;                      ///< which message a full one goes without: "old" or "new"
    double maxAgeSeconds = 0;                 ///< 0: no bound
    std::string leader;
    std::vector<StreamReplica> replicas;  ///< the others
    std::string created;                  ///< another stream of the name has another one
};

/// What became of one stream of a fleet.
struct SetupReport {
    enum class State {
        kUnknown,  ///< `error` says why
        kMade,
        kRight,    ///< it was there, as it has to be
        kDiffers,  ///< it was there, and stays as it is
        kChanged   ///< of the differences those that could be
    };
    std::string stream;
    State state = State::kUnknown;
    std::vector<StreamDifference> differences;  ///< before anything was changed
    std::string error;                          ///< what was refused, or had no answer; empty: nothing
};

// Each is one line with its end.
std::string OkAnswer(int64_t id);
std::string ErrorAnswer(int64_t id, const std::string& sentence, const char* outcome = nullptr);
/// `server`: nothing where there is no connection, or it does not say what it is.
/// `why`: why there is none.
std::string InfoAnswer(int64_t id, bool isConnected, const std::optional<ServerInfo>& server,
                       const std::string& why = "");
/// The end of a list. `brokerTime`: the broker's clock when it began, 0: not said.
std::string ListAnswer(int64_t id, double brokerTime);
std::string KeyItem(int64_t id, const KvEntry& entry);
/// `entry`: nothing where there is none of that name.
std::string GetAnswer(int64_t id, const std::optional<KvEntry>& entry);
std::string PutAnswer(int64_t id, uint64_t revision);
/// A payload that does not fit into a line is left out, and "cut" says so.
std::string EventLine(int64_t id, const EventItem& item);
std::string StreamAnswer(int64_t id, const StreamReport& report);
std::string SetupAnswer(int64_t id, const std::vector<SetupReport>& reports);

/// Returns: what a put's answer comes to, in the word of the protocol: "conflict", "refused", "unknown".
const char* PutOutcome(const Answer& answer);

}  // namespace fleet
