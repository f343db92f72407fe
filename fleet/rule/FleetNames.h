// Names on the wire: subjects of hosts and processes, and the id of a message. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace fleet {

/// Returns: `name` in letters, digits, "_" and "-": any other byte is "_" and two hex digits. Two names never become
/// one. One without a byte is "_".
std::string EscapeName(const std::string& name);
/// The name that is written so; the key itself where none is. Pure.
std::string NameOfKey(const std::string& key);

/// Returns: the subject of a process's events; both names are escaped.
std::string EventSubject(const std::string& host, const std::string& process);

/// Which events a message carries, by its last one.
struct MessageId {
    std::string spool;  ///< 16 hex digits
    int64_t number = 0;
};

/// Returns: "<host>/<spool>-<number>". The host is in it because the broker looks an id up among those of all hosts.
std::string FormatMessageId(const std::string& host, const MessageId& id);
/// Returns: nothing where `text` is no id of this host.
std::optional<MessageId> ParseMessageId(const std::string& host, const std::string& text);

/// Returns: whether this is how a spool is called.
bool IsSpoolName(const std::string& name);

}  // namespace fleet
