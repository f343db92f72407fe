// What SQLite does to its files, written down call by call, and the states in which a loss of power can leave them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace sweep {

/// Writes down every write, sync, truncation and removal of database files and their logs while the object lives. Only
/// files that are opened meanwhile are seen; one object at a time.
class LoggedDisk {
public:
    LoggedDisk();
    ~LoggedDisk();
    LoggedDisk(const LoggedDisk&) = delete;
    LoggedDisk& operator=(const LoggedDisk&) = delete;

    /// What is opened from here on is not seen.
    void Stop();

    /// A place between two calls.
    size_t Length() const;

    /// What is done with a change that no sync has made sure of. `bytes` of it may stay, in whole sectors.
    using Keep = std::function<size_t(size_t bytes)>;
    /// Files as they can be when the power fails at `place`: what was synced is there, of the rest each change for
    /// itself stays, goes or stays in part.
    std::map<std::string, std::string> After(size_t place, const Keep& keep) const;
};

}  // namespace sweep
