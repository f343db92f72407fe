// Frames between a process and the relay: what decodes comes back the same, and nothing beyond a bound is kept.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "local/RelayFrames.h"

namespace {

void Check(bool holds) {
    if (!holds) abort();
}

void TryBatch(const std::string& body) {
    const auto batch = fleet::DecodeBatch(body);
    if (!batch) return;
    Check(fleet::CheckBatch(*batch).Ok());
    Check(fleet::EncodeBatch(*batch).substr(fleet::kFrameHeaderBytes) == body);
}

void TryAnswer(const std::string& body) {
    const auto answer = fleet::DecodeAnswer(body);
    if (!answer) return;
    Check(answer->reason.size() <= fleet::kMostReasonBytes);
    const auto again = fleet::DecodeAnswer(fleet::EncodeAnswer(*answer).substr(fleet::kFrameHeaderBytes));
    Check(again.Ok() && again->reason == answer->reason && again->step.number == answer->step.number);
}

}  // namespace

/// The first byte says in which pieces the rest comes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t piece = 1 + data[0] % 61;
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    TryBatch(bytes);
    TryAnswer(bytes);
    fleet::FrameReader reader(4096);
    for (size_t at = 0; at < bytes.size(); at += piece) {
        const bool added = reader.Add(std::string_view(bytes).substr(at, piece)).Ok();
        Check(reader.Kept() <= fleet::kFrameHeaderBytes + 4096);
        Check(added || reader.Kept() == 0);
        while (const auto frame = reader.Next()) {
            Check(added);
            frame->kind == fleet::FrameKind::kBatch ? TryBatch(frame->body) : TryAnswer(frame->body);
        }
    }
    return 0;
}
