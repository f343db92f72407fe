// The broker's text protocol on a plain socket, as far as a simulated host needs it: bytes in, messages out. Pure.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace fleet {

/// What the broker sends: a message with its headers, or a word of its own ("INFO", "PONG", "PING", "-ERR").
struct WireMessage {
    std::string_view word;  ///< "MSG" for a message, with headers or without
    std::string_view subject;
    std::string_view headers;
    std::string_view body;
};

/// Returns: the header's value; empty where there is none.
std::string_view HeaderOf(std::string_view headers, std::string_view name);
/// Returns: the number behind "NATS/1.0 "; 0: all is well.
int StatusOf(std::string_view headers);

/// Takes whole messages from the front of `bytes`. Returns: false at something that is no message.
bool TakeMessages(std::string& bytes, const std::function<void(const WireMessage&)>& take);

/// What has a connection to the broker.
class Peer {
public:
    Peer() = default;
    virtual ~Peer() = default;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /// The connection is there: what is to be sent first.
    virtual void OnOpen() = 0;
    virtual void OnClosed() = 0;
    /// Takes what has come. Returns: false where it is no protocol.
    virtual bool OnBytes(std::string& bytes) = 0;
    /// What is due at this time.
    virtual void OnTime() = 0;
    virtual bool IsReady() const = 0;
    /// What is to be sent.
    std::string out;
};

std::string ConnectLine(const std::string& name);
std::string Subscribe(const std::string& subject, int id);
/// `headers`: lines that end in "\r\n", or nothing.
std::string Publish(const std::string& subject, const std::string& reply, std::string_view body,
                    const std::string& headers = "");

}  // namespace fleet
