// Whether what a process says on a descriptor goes into the system journal already.
#pragma once

namespace agent {

/// `variable` is the value of JOURNAL_STREAM, "<device>:<inode>", or null: a child inherits it whatever became of its
/// descriptors, so it is compared with what `fd` is open on. Source: systemd.exec(5).
bool IsJournalStream(const char* variable, int fd);

}  // namespace agent
