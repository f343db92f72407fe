// The sink of a fleet: batches over a local socket to the relay of this host, which brings them to a broker.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/Fd.h"
#include "base/Result.h"
#include "events/EventSinks.h"
#include "local/RelayFrames.h"

namespace zelhost {

/// One batch is under way at a time. The connection stays for the next one; what the relay says that is no answer to
/// the batch ends it. An answer that does not come in time, too: the batch comes again, and the relay knows it by then.
class CFleetSink final : public IEventSink {
public:
    /// `answer`: for how long one is waited for.
    CFleetSink(std::string socketFile, std::string process, std::chrono::milliseconds answer);
    std::string Name() const override { return "fleet"; }
    Handover Deliver(const std::vector<SpoolMessage>& messages, const std::atomic<bool>& stop) override;
    size_t BatchSize() const override { return fleet::kMostEvents; }
    bool KeepsConfirmed() const override { return true; }

private:
    using Clock = std::chrono::steady_clock;

    /// The events from `begin` on that travel together.
    fleet::BatchFrame MakeBatch(const std::vector<SpoolMessage>& messages, size_t begin) const;
    base::Status Connect();
    /// Ends a connection that the relay has ended, or on which it spoke unasked.
    void CheckConnection();
    /// One batch and the answer to it. On failure: there is no connection any more.
    base::Result<fleet::AnswerFrame> Ask(const fleet::BatchFrame& batch, const std::atomic<bool>& stop);
    base::Result<fleet::AnswerFrame> AskOnce(const std::string& frame, const std::atomic<bool>& stop);
    base::Status Send(std::string_view bytes, Clock::time_point end, const std::atomic<bool>& stop);
    base::Result<fleet::AnswerFrame> Receive(Clock::time_point end, const std::atomic<bool>& stop);
    base::Status WaitFor(short events, Clock::time_point end, const std::atomic<bool>& stop) const;

    const std::string m_socketFile;
    const std::string m_process;
    const std::chrono::milliseconds m_answer;
    base::Fd m_socket;
};

}  // namespace zelhost
