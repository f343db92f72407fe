// Where messages of the spool end: a JSON-lines file with rotation, syslog, an HTTP endpoint. Each sink is used by
// one thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "events/HttpService.h"
#include "base/Fd.h"
#include "base/Result.h"
#include "events/EventSpool.h"
#include "platform/host/HostRecords.h"

namespace zelhost {

/// One message as one JSON object without a line end. Keys in fixed order; bytes that are no UTF-8 become U+FFFD.
std::string MessageJson(const SpoolMessage& message, const std::string& process);
/// The same in at most `most` bytes: where it would be longer, its end is "cut":N and N bytes of extra and body are
/// left out, extra's first. Requires: room for an empty message.
std::string MessageJsonWithin(const SpoolMessage& message, const std::string& process, size_t most);

/// What became of messages that a sink was handed.
struct Handover {
    size_t safe = 0;                          ///< how many of the first ones are safely there, or given up
    base::Status rest;                        ///< why not all of them
    uint64_t givenUp = 0;                     ///< of the safe ones, those that this sink will never have
    std::chrono::milliseconds retryAfter{0};  ///< when the rest is to be tried; 0: the lane's own pause, which grows
    /// Where the receiver has lost what it had confirmed: only what comes up to this number is there.
    std::optional<int64_t> goBack = std::nullopt;
};

class IEventSink {
public:
    virtual ~IEventSink() = default;
    virtual std::string Name() const = 0;
    /// Hands over messages in order. What is not safely there is handed over again later.
    /// Blocks: until one message is handed over, but no longer than a second once `stop` is set.
    virtual Handover Deliver(const std::vector<SpoolMessage>& messages, const std::atomic<bool>& stop) = 0;
    /// Messages that a sink may be handed at once.
    virtual size_t BatchSize() const = 0;
    /// Whether it may go back, so that what it has confirmed is to be kept for a while.
    virtual bool KeepsConfirmed() const { return false; }
};

/// Appends lines to a file; at `maxBytes` it becomes PATH.1, PATH.1 becomes PATH.2 and so on, `keep` of them.
class CJsonLinesSink final : public IEventSink {
public:
    CJsonLinesSink(std::string path, uint64_t maxBytes, unsigned int keep, std::string process);
    std::string Name() const override { return "jsonl"; }
    Handover Deliver(const std::vector<SpoolMessage>& messages, const std::atomic<bool>& stop) override;
    size_t BatchSize() const override { return 256; }

private:
    base::Status OpenFile();
    /// Cuts off what a crash left of a line; the spool still has it whole.
    base::Status CutTornLine();
    base::Status Write(const std::string& text);
    base::Status Rotate();

    const std::string m_path;
    const uint64_t m_maxBytes;
    const unsigned int m_keep;
    const std::string m_process;
    base::Fd m_fd;
    uint64_t m_size = 0;
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

/// One syslog(3) line per message: id, type, body on one line.
class CSyslogSink final : public IEventSink {
public:
    explicit CSyslogSink(std::string process);
    ~CSyslogSink() override;
    std::string Name() const override { return "syslog"; }
    Handover Deliver(const std::vector<SpoolMessage>& messages, const std::atomic<bool>& stop) override;
    size_t BatchSize() const override { return 64; }

private:
    base::Status Connect();
    base::Status Send(const SpoolMessage& message);
    const std::string m_process;
    base::Fd m_socket;
};

/// One POST per message. The message's id goes along as a header, so that the receiver knows a second delivery.
class CHttpSink final : public IEventSink {
public:
    CHttpSink(const DeliveryOptions& options, std::string process);
    std::string Name() const override { return "http"; }
    Handover Deliver(const std::vector<SpoolMessage>& messages, const std::atomic<bool>& stop) override;
    size_t BatchSize() const override { return 16; }

    /// A message that the endpoint refuses as wrong this many times in a row is given up, lest it hold up the rest.
    static constexpr unsigned int kMostRefusals = 3;

private:
    HttpResult Post(const SpoolMessage& message, const std::atomic<bool>& stop) const;
    /// Returns: whether the endpoint has refused this very message as wrong often enough.
    bool IsHopeless(const SpoolMessage& message, const HttpResult& result);

    const DeliveryOptions m_options;
    const std::string m_process;
    int64_t m_refusedSeq = 0;
    unsigned int m_refusals = 0;
};

}  // namespace zelhost
