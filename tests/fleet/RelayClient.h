// A process of the agent as the relay sees it: one connection, frames out, answers in.
#pragma once

#include <optional>
#include <string>

#include "base/Fd.h"
#include "local/RelayFrames.h"

namespace fleet {

/// A batch of `process` with one event for each number, whose payload is that many bytes in all; 0: a few.
BatchFrame MakeBatch(const std::string& process, int64_t first, int64_t last, size_t bytes = 0,
                     const std::string& spool = "00000000000000aa");

class RelayClient {
public:
    /// Waits until somebody serves there.
    explicit RelayClient(const std::string& path);
    bool IsOpen() const { return m_socket.IsOpen(); }
    /// Returns: whether all of it was taken within the patience of a test.
    bool Send(const std::string& bytes);
    /// Returns: the next answer; nothing where the connection ends before.
    std::optional<AnswerFrame> Receive();
    std::optional<AnswerFrame> Ask(const BatchFrame& batch) {
        return Send(EncodeBatch(batch)) ? Receive() : std::nullopt;
    }
    /// Returns: whether the other side has ended the connection, and has sent nothing before.
    bool IsCut();
    void Close() { m_socket.Reset(); }

private:
    base::Fd m_socket;
};

}  // namespace fleet
