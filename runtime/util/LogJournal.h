// The system journal as a place for log lines, by its own datagram protocol: no library is needed for it.
#pragma once

#include <string>
#include <string_view>

#include "base/Fd.h"

namespace zel {

/// One line for the journal.
struct JournalEntry {
    int priority = 6;  ///< syslog priority, 3 error to 7 debug
    std::string_view identifier;
    std::string_view source;
    int line = 0;
    unsigned long threadId = 0;
    std::string_view text;
};

/// Returns: the datagram of an entry. Each field is "NAME=value\n", or, for a value with line ends, the name, "\n", the
/// length as 64 bits little-endian, the value, "\n". Pure.
/// Source: systemd.io/JOURNAL_NATIVE_PROTOCOL.
std::string FormatJournalEntry(const JournalEntry& entry);

/// The socket. Thread-safety: one thread at a time. Errors: an entry that cannot be sent at once is dropped.
class LogJournal {
public:
    explicit LogJournal(std::string socketPath = kDefaultSocketPath);

    /// Returns: false when there is no journal, or it does not take the entry without waiting.
    bool Send(const JournalEntry& entry);

private:
    static constexpr char kDefaultSocketPath[] = "/run/systemd/journal/socket";

    const std::string m_socketPath;
    base::Fd m_socket;
};

}  // namespace zel
