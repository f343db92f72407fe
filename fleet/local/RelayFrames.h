// What a process of the agent and the relay say to each other over their local socket: batches one way, one answer to
// each the other way. Pure: bytes in, frames out, everything bounded; both sides check what they get.
//
// A frame is its kind (1 byte), the version (1 byte), two bytes that are 0, the length of its body (4 bytes), the body.
// Numbers are little-endian; a text is its length (4 bytes) and its bytes. Another kind of frame is another number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Result.h"
#include "rule/PublishRule.h"

namespace fleet {

constexpr uint8_t kFrameVersion = 1;
constexpr size_t kMostProcessBytes = 64;
constexpr uint32_t kMostEvents = 64;
constexpr size_t kMostBatchBytes = 64 << 10;   ///< of the events of a batch, where there are more than one
constexpr size_t kMostEventBytes = 960 << 10;  ///< of an event that travels alone; the usual broker takes 1 MiB
constexpr size_t kMostReasonBytes = 512;
constexpr size_t kFrameHeaderBytes = 8;
constexpr size_t kMostFrameBytes = kMostEventBytes + 1024;  ///< of a body

enum class FrameKind : uint8_t {
    kBatch = 1,   ///< of a process
    kAnswer = 2,  ///< of the relay
};

struct Frame {
    FrameKind kind = FrameKind::kBatch;
    std::string body;
};

struct BatchFrame {
    std::string process;
    Batch batch;
    uint32_t events = 0;
    std::string payload;  ///< the events, as they go to the broker
};

struct AnswerFrame {
    Step step;  ///< kStored, kGoBack or kPause
    State state = State::kOff;
    Block block = Block::kNone;
    std::string reason;
};

/// Returns: why a batch may not travel; the same rule on both sides.
base::Status CheckBatch(const BatchFrame& batch);

/// Requires: what CheckBatch takes. Returns: the whole frame.
std::string EncodeBatch(const BatchFrame& batch);
/// A reason that is too long is cut. Returns: the whole frame.
std::string EncodeAnswer(const AnswerFrame& answer);

/// Errors: kMalformed.
base::Result<BatchFrame> DecodeBatch(std::string_view body);
base::Result<AnswerFrame> DecodeAnswer(std::string_view body);

/// Puts frames together from what a socket gives. After an error nothing more is taken: the peer is to be cut.
/// Thread-safety: none.
class FrameReader {
public:
    /// `most`: bytes of a body that are taken.
    explicit FrameReader(size_t most = kMostFrameBytes) : m_most(most) {}
    /// Errors: kMalformed for a head that is none, kTooLarge for a body beyond the bound; before any of it is kept.
    base::Status Add(std::string_view bytes);
    /// Returns: the next whole frame, if there is one.
    std::optional<Frame> Next();
    /// Returns: length of the body under way; nothing while its head is not whole.
    std::optional<size_t> BodyLength() const;
    /// Returns: bytes that the frame under way still lacks; of its head, while that is not whole.
    size_t Missing() const;
    /// Returns: bytes that are kept.
    size_t Kept() const { return m_bytes.size(); }

private:
    /// The head of the first frame. Returns: the length of its body; nothing where the head is not whole yet.
    base::Result<std::optional<size_t>> ReadHead() const;

    const size_t m_most;
    std::string m_bytes;
    bool m_broken = false;
};

}  // namespace fleet
