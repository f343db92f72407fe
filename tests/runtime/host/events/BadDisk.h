// A disk with places that cannot be read, as far as SQLite sees it.
#pragma once

namespace support {

/// Reads of database files that touch these pages fail while the object lives, as a bad block makes them fail. Logs and
/// journals can be read. Only files that are opened meanwhile are looked at; one object at a time.
class BadDisk {
public:
    BadDisk();
    ~BadDisk();
    BadDisk(const BadDisk&) = delete;
    BadDisk& operator=(const BadDisk&) = delete;

    /// Pages of 4096 bytes, counted from 0. `times`: how many reads of them fail.
    void Spoil(int firstPage, int pages, int times = 1 << 30);
    /// Returns: how many reads have failed.
    int Failed() const;
};

}  // namespace support
