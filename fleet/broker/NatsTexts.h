// Headers of messages at the broker, for those who have the library.
#pragma once

#include <nats/nats.h>

#include <string>

namespace fleet {

constexpr char kIdHeader[] = "Nats-Msg-Id";
constexpr char kFirstHeader[] = "Zel-First";
constexpr char kOperationHeader[] = "KV-Operation";
constexpr char kMarkerHeader[] = "Nats-Marker-Reason";  // the broker's own, where a key has outlived its time

inline std::string HeaderOf(natsMsg* message, const char* name) {
    const char* text = nullptr;
    return natsMsgHeader_Get(message, name, &text) == NATS_OK && text != nullptr ? text : "";
}

/// Returns: why a key has no value any more; empty: it has one.
inline std::string RemovalOf(natsMsg* message) {
    const std::string operation = HeaderOf(message, kOperationHeader);
    return operation.empty() ? HeaderOf(message, kMarkerHeader) : operation;
}

/// Returns: the words without the places in the client library's source, "(file.c:12): ", which tell an operator
/// nothing. Pure.
std::string WithoutPlaces(const std::string& words);

/// What the library has said last in this thread, and in general words where it has said nothing.
std::string DetailOf(natsStatus status);

inline std::string PayloadOf(natsMsg* message) {
    return std::string(natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message)));
}

}  // namespace fleet
