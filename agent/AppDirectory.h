// The application directory of an agent: its folders, who may write in it, and the lock that keeps a second process
// of one name out.
#pragma once

#include <string>

namespace agent {

/// Holds the application directory for one process.
/// Lifetime: the lock lasts as long as the object.
class AppDirectory {
public:
    AppDirectory() = default;
    ~AppDirectory();
    AppDirectory(const AppDirectory&) = delete;
    AppDirectory& operator=(const AppDirectory&) = delete;

    /// Checks the directory, makes the folders conf, log, run, data and spool in it, and takes the lock of `name`.
    /// A directory that cannot be written is no failure unless it cannot be entered: limits and sampling work
    /// without it; `warning` says what is lost then.
    /// Returns: an exit code, kExitClean when all is well; `problem` says what is wrong and what to do.
    int Open(const std::string& path, const std::string& name, std::string& problem, std::string& warning);

    const std::string& Path() const { return m_path; }
    bool Writable() const { return m_writable; }

private:
    std::string m_path;
    bool m_writable = false;
    int m_lock = -1;
};

}  // namespace agent
