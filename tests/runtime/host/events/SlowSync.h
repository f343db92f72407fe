// Syncs of this process's files, counted and slowed as a disk of that speed would make them.
#pragma once

namespace support {

/// While it lives, every fdatasync takes at least so long. One object at a time.
class SlowSync {
public:
    explicit SlowSync(int ms);
    ~SlowSync();
    SlowSync(const SlowSync&) = delete;
    SlowSync& operator=(const SlowSync&) = delete;

    /// Returns: how many there were so far.
    int Count() const;
    /// Returns: how often somebody slept for another's lock meanwhile, by usleep.
    int Sleeps() const;
};

}  // namespace support
