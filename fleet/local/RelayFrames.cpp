// Frames between a process of the agent and the relay.
#include "local/RelayFrames.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "rule/FleetNames.h"

namespace fleet {
namespace {

base::Error Malformed(const char* what) {
    return base::SentenceError(std::string("not a frame of the relay: ") + what, base::ErrorKind::kMalformed);
}

void PutNumber(std::string& out, uint64_t number, size_t bytes) {
    for (size_t i = 0; i < bytes; ++i) out += static_cast<char>(number >> (8 * i) & 0xff);
}

void PutText(std::string& out, std::string_view text) {
    PutNumber(out, text.size(), 4);
    out.append(text);
}

uint64_t NumberAt(std::string_view bytes, size_t at, size_t count) {
    uint64_t number = 0;
    for (size_t i = 0; i < count; ++i)
        number |= static_cast<uint64_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
    return number;
}

std::string WithHead(FrameKind kind, const std::string& body) {
    std::string frame{static_cast<char>(kind), static_cast<char>(kFrameVersion), 0, 0};
    PutNumber(frame, body.size(), 4);
    return frame + body;
}

/// Takes values off a body; after the first that is not there, none is.
class Taker {
public:
    explicit Taker(std::string_view bytes) : m_bytes(bytes) {}
    uint64_t Number(size_t bytes) {
        m_ok = m_ok && m_bytes.size() >= bytes;
        if (!m_ok) return 0;
        const uint64_t number = NumberAt(m_bytes, 0, bytes);
        m_bytes.remove_prefix(bytes);
        return number;
    }
    /// A number of the spool or a time: beyond what is signed there is none.
    int64_t Signed() {
        const uint64_t number = Number(8);
        m_ok = m_ok && number <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
        return m_ok ? static_cast<int64_t>(number) : 0;
    }
    std::string Text(size_t most) {
        const uint64_t length = Number(4);
        m_ok = m_ok && length <= most && length <= m_bytes.size();
        if (!m_ok) return {};
        std::string text(m_bytes.substr(0, static_cast<size_t>(length)));
        m_bytes.remove_prefix(static_cast<size_t>(length));
        return text;
    }
    /// Returns: whether all was there, and nothing else.
    bool IsWhole() const { return m_ok && m_bytes.empty(); }

private:
    std::string_view m_bytes;
    bool m_ok = true;
};

}  // namespace

base::Status CheckBatch(const BatchFrame& frame) {
    const Batch& batch = frame.batch;
    if (frame.process.empty() || frame.process.size() > kMostProcessBytes) return Malformed("name of the process");
    if (!IsSpoolName(batch.spool)) return Malformed("name of the spool");
    if (batch.after < 0 || batch.after >= batch.first || batch.first > batch.last)
        return Malformed("numbers of events");
    // One event has one number; more than one have two ends, and may have gaps between them.
    const auto span = static_cast<uint64_t>(batch.last - batch.first);
    if (frame.events == 0 || frame.events > kMostEvents) return Malformed("count of events");
    if (frame.events - 1 > span || (frame.events == 1 && span != 0)) return Malformed("count of events");
    const size_t most = frame.events == 1 ? kMostEventBytes : kMostBatchBytes;
    if (frame.payload.empty() || frame.payload.size() > most) return Malformed("size of the events");
    return {};
}

std::string EncodeBatch(const BatchFrame& frame) {
    std::string body;
    body.reserve(frame.payload.size() + 128);
    PutText(body, frame.process);
    PutText(body, frame.batch.spool);
    PutNumber(body, static_cast<uint64_t>(frame.batch.after), 8);
    PutNumber(body, static_cast<uint64_t>(frame.batch.first), 8);
    PutNumber(body, static_cast<uint64_t>(frame.batch.last), 8);
    PutNumber(body, frame.events, 4);
    PutText(body, frame.payload);
    return WithHead(FrameKind::kBatch, body);
}

base::Result<BatchFrame> DecodeBatch(std::string_view body) {
    Taker taker(body);
    BatchFrame frame;
    frame.process = taker.Text(kMostProcessBytes);
    frame.batch.spool = taker.Text(kMostProcessBytes);
    frame.batch.after = taker.Signed();
    frame.batch.first = taker.Signed();
    frame.batch.last = taker.Signed();
    frame.events = static_cast<uint32_t>(taker.Number(4));
    frame.payload = taker.Text(kMostEventBytes);
    if (!taker.IsWhole()) return Malformed("a batch that is cut off or too long");
    const base::Status checked = CheckBatch(frame);
    if (!checked) return checked.GetError();
    return frame;
}

std::string EncodeAnswer(const AnswerFrame& frame) {
    std::string body;
    PutNumber(body, static_cast<uint64_t>(frame.step.kind), 1);
    PutNumber(body, static_cast<uint64_t>(frame.state), 1);
    PutNumber(body, static_cast<uint64_t>(frame.block), 1);
    PutNumber(body, static_cast<uint64_t>(frame.step.number), 8);
    PutNumber(body, static_cast<uint64_t>(frame.step.pauseMs), 8);
    PutText(body, std::string_view(frame.reason).substr(0, kMostReasonBytes));
    return WithHead(FrameKind::kAnswer, body);
}

base::Result<AnswerFrame> DecodeAnswer(std::string_view body) {
    Taker taker(body);
    const uint64_t kind = taker.Number(1);
    const uint64_t state = taker.Number(1);
    const uint64_t block = taker.Number(1);
    AnswerFrame frame;
    frame.step.number = taker.Signed();
    frame.step.pauseMs = taker.Signed();
    frame.reason = taker.Text(kMostReasonBytes);
    if (!taker.IsWhole()) return Malformed("an answer that is cut off or too long");
    if (kind < static_cast<uint64_t>(Step::Kind::kStored) || kind > static_cast<uint64_t>(Step::Kind::kPause)) {
        return Malformed("kind of the answer");
    }
    if (state > static_cast<uint64_t>(State::kBlocked)) return Malformed("state of the answer");
    if (block > static_cast<uint64_t>(Block::kClonedHost)) return Malformed("reason of the answer");
    frame.step.kind = static_cast<Step::Kind>(kind);
    frame.state = static_cast<State>(state);
    frame.block = static_cast<Block>(block);
    // Nobody can keep a sender away for longer than the rule itself would.
    frame.step.pauseMs = std::min(frame.step.pauseMs, PublishRule::kMostPauseMs);
    return frame;
}

// --- frames out of a stream of bytes ---

base::Result<std::optional<size_t>> FrameReader::ReadHead() const {
    if (m_bytes.size() < kFrameHeaderBytes) return std::optional<size_t>();
    const uint64_t kind = NumberAt(m_bytes, 0, 1);
    const bool known =
        kind == static_cast<uint64_t>(FrameKind::kBatch) || kind == static_cast<uint64_t>(FrameKind::kAnswer);
    if (!known || NumberAt(m_bytes, 1, 1) != kFrameVersion || NumberAt(m_bytes, 2, 2) != 0)
        return Malformed("its head");
    const uint64_t length = NumberAt(m_bytes, 4, 4);
    if (length > m_most) {
        return base::SentenceError("a frame of " + std::to_string(length) + " bytes is too long",
                                   base::ErrorKind::kTooLarge);
    }
    return std::optional<size_t>(static_cast<size_t>(length));
}

base::Status FrameReader::Add(std::string_view bytes) {
    if (m_broken) return Malformed("what follows an error");
    while (!bytes.empty()) {
        // The head first, so that a body beyond the bound is refused before it is kept.
        const size_t missing = m_bytes.size() < kFrameHeaderBytes ? kFrameHeaderBytes - m_bytes.size() : bytes.size();
        const size_t part = std::min(missing, bytes.size());
        // As much as it takes and no more: by doubling it would be up to twice that.
        if (m_bytes.size() >= kFrameHeaderBytes) m_bytes.reserve(m_bytes.size() + Missing());
        m_bytes.append(bytes.substr(0, part));
        bytes.remove_prefix(part);
        const auto head = ReadHead();
        if (head && (!*head || m_bytes.size() <= kFrameHeaderBytes + **head)) continue;
        // One request is answered before the next: what comes behind a whole frame is no part of this talk.
        m_broken = true;
        m_bytes.clear();
        return head ? Malformed("bytes behind it") : head.GetError();
    }
    return {};
}

std::optional<size_t> FrameReader::BodyLength() const {
    const auto head = ReadHead();
    return head ? *head : std::nullopt;
}

size_t FrameReader::Missing() const {
    return kFrameHeaderBytes + BodyLength().value_or(0) - m_bytes.size();
}

std::optional<Frame> FrameReader::Next() {
    const auto head = ReadHead();
    if (m_broken || !head || !*head || m_bytes.size() < kFrameHeaderBytes + **head) return std::nullopt;
    Frame frame;
    frame.kind = static_cast<FrameKind>(m_bytes[0]);
    // The bytes go with it: a reader between two frames keeps no room for the last one.
    frame.body = std::exchange(m_bytes, std::string());
    frame.body.erase(0, kFrameHeaderBytes);
    return frame;
}

}  // namespace fleet
