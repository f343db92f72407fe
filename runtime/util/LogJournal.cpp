#include "LogJournal.h"

#include <cstdint>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

namespace zel {
namespace {

void AppendField(std::string& datagram, std::string_view name, std::string_view value) {
    datagram += name;
    if (value.find('\n') == std::string_view::npos) {
        datagram += '=';
    } else {
        datagram += '\n';
        uint64_t length = value.size();
        for (size_t byte = 0; byte < sizeof length; ++byte, length >>= 8U) {
            datagram += static_cast<char>(length & 0xFFU);
        }
    }
    datagram += value;
    datagram += '\n';
}

}  // namespace

std::string FormatJournalEntry(const JournalEntry& entry) {
    std::string datagram;
    AppendField(datagram, "PRIORITY", std::to_string(entry.priority));
    AppendField(datagram, "SYSLOG_IDENTIFIER", entry.identifier);
    if (!entry.source.empty()) {
        AppendField(datagram, "CODE_FILE", entry.source);
        AppendField(datagram, "CODE_LINE", std::to_string(entry.line));
    }
    AppendField(datagram, "TID", std::to_string(entry.threadId));
    AppendField(datagram, "MESSAGE", entry.text);
    return datagram;
}

LogJournal::LogJournal(std::string socketPath) : m_socketPath(std::move(socketPath)) {}

bool LogJournal::Send(const JournalEntry& entry) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_socketPath.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, m_socketPath.c_str(), m_socketPath.size() + 1);
    if (!m_socket.IsOpen()) m_socket.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!m_socket.IsOpen()) return false;
    const std::string datagram = FormatJournalEntry(entry);
    // Addressed each time, so that a restarted journal is found again.
    return base::RetryOnSignal([&] {
               return ::sendto(m_socket.Get(), datagram.data(), datagram.size(), MSG_NOSIGNAL,
                               reinterpret_cast<const sockaddr*>(&address), sizeof address);
           }) == static_cast<ssize_t>(datagram.size());
}

}  // namespace zel
