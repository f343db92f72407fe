// Where messages of the spool end: a JSON-lines file with rotation, syslog, an HTTP endpoint. Each sink is used by
// one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "events/EventSpool.h"
#include "SecureFile.h"
#include "platform/host/HostRecords.h"

namespace zelhost {

/// One message as one JSON object without a line end. Keys in fixed order; bytes that are no UTF-8 become U+FFFD.
std::string MessageJson(const SpoolMessage& message, const std::string& process);

class IEventSink {
public:
    virtual ~IEventSink() = default;
    virtual std::string Name() const = 0;
    /// Hands over messages in order. Returns: how many of the first ones are safely there; fewer than all is a
    /// failure with its reason. The rest is handed over again later.
    virtual size_t Deliver(const std::vector<SpoolMessage>& messages, std::string& reason) = 0;
    /// Messages that a sink may be handed at once.
    virtual size_t BatchSize() const = 0;
};

/// Appends lines to a file; at `maxBytes` it becomes PATH.1, PATH.1 becomes PATH.2 and so on, `keep` of them.
class CJsonLinesSink final : public IEventSink {
public:
    CJsonLinesSink(std::string path, uint64_t maxBytes, unsigned int keep, std::string process);
    std::string Name() const override { return "jsonl"; }
    size_t Deliver(const std::vector<SpoolMessage>& messages, std::string& reason) override;
    size_t BatchSize() const override { return 256; }

private:
    bool OpenFile(std::string& reason);
    /// Cuts off what a crash left of a line; the spool still has it whole.
    bool CutTornLine(std::string& reason);
    void Rotate();

    const std::string m_path;
    const uint64_t m_maxBytes;
    const unsigned int m_keep;
    const std::string m_process;
    base::Fd m_fd;
    uint64_t m_size = 0;
    ino_t m_inode = 0;
};

/// One syslog(3) line per message: id, type, body on one line.
class CSyslogSink final : public IEventSink {
public:
    explicit CSyslogSink(std::string process);
    ~CSyslogSink() override;
    std::string Name() const override { return "syslog"; }
    size_t Deliver(const std::vector<SpoolMessage>& messages, std::string& reason) override;
    size_t BatchSize() const override { return 64; }

private:
    bool Connect(std::string& reason);
    const std::string m_process;
    base::Fd m_socket;
};

/// One POST per message. The message's id goes along as a header, so that the receiver knows a second delivery.
class CHttpSink final : public IEventSink {
public:
    CHttpSink(const DeliveryOptions& options, std::string process);
    std::string Name() const override { return "http"; }
    size_t Deliver(const std::vector<SpoolMessage>& messages, std::string& reason) override;
    size_t BatchSize() const override { return 16; }

    /// A message that the endpoint refuses as wrong this many times in a row is given up, lest it hold up the rest.
    static constexpr unsigned int kMostRefusals = 3;

private:
    const DeliveryOptions m_options;
    const std::string m_process;
    int64_t m_refusedSeq = 0;
    unsigned int m_refusals = 0;
};

}  // namespace zelhost
