// Makes writes to control files fail, counts those that succeed, and keeps the log lines, in this program only: the
// C library's write is wrapped at link time and the logger's two operations are defined here.
#pragma once

#include <string>
#include <vector>

namespace faults {

/// Back to normal, counters at 0, no log lines.
void Clear();
/// The n-th next write to a control file (0: the very next) fails with `error`; with `forever` all after it, too.
void FailWrite(int n, int error, bool forever = false);
/// Only writes to files of this name fail; counted by themselves.
void FailWritesTo(const std::string& file, int error);
/// Returns: writes to control files since Clear, failed ones included.
int Writes();
/// Returns: log lines since Clear of level 3 (or worse), "source: text".
std::vector<std::string> Warnings();

}  // namespace faults
