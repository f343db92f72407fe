// A disk of a test: small, full or read-only when wanted, and seen by this process only.
#pragma once

#include <string>

#include "support/Files.h"

namespace support {

/// A tmpfs of `kilobytes` at a directory of its own, in a mount namespace that only this process sees.
class SmallDisk {
public:
    explicit SmallDisk(long kilobytes);
    ~SmallDisk();
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    /// Returns: empty when mounted, else what is missing on this machine.
    const std::string& Missing() const { return m_missing; }
    std::string operator/(const std::string& name) const { return m_directory / name; }
    const std::string& Path() const { return m_directory.Path(); }
    bool MakeReadOnly();
    /// Fills the disk to the last byte with the file "filler".
    void Fill();

private:
    TempDir m_directory;
    std::string m_missing;
};

}  // namespace support
