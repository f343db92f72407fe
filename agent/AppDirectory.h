// The application directory of an agent: its folders, who may write in it, and the lock that keeps a second process
// of one name out.
#pragma once

#include <string>

#include "base/Fd.h"
#include "base/Result.h"

namespace agent {

/// Holds the application directory for one process.
/// Lifetime: the lock lasts as long as the object.
class AppDirectory {
public:
    AppDirectory() = default;
    AppDirectory(const AppDirectory&) = delete;
    AppDirectory& operator=(const AppDirectory&) = delete;

    /// Checks the directory, makes the folders conf, log, run, data, spool and selfkill in it, and takes the lock of
    /// `name`. A directory that cannot be written is no failure unless it cannot be entered: limits and sampling work
    /// without it.
    /// Errors: what is wrong and what to do; kBusy when another process holds the lock.
    base::Status Open(const std::string& path, const std::string& name);

    /// Returns: what is lost for want of a place on disk; empty when nothing is.
    const std::string& Warning() const { return m_warning; }

private:
    base::Status MakeFolders(const std::string& path);
    base::Status TakeLock(const std::string& path, const std::string& name);

    std::string m_warning;
    base::Fd m_lock;
};

}  // namespace agent
