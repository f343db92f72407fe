// System calls that fail on demand. The test program's definitions stand in front of those of the C library, for the
// shared library under test as well.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace faults {

enum class Call { kRead, kWrite, kFsync, kFstat, kStatvfs, kMkdirat, kOpenat, kUnlink, kThreadCreate };

constexpr int kOneByteLess = 0;  ///< in the place of an errno: the write puts one byte less than it was given

/// From its construction on, the call number `nth` (1 is the next; 0: none, it only counts) of this kind fails with
/// `error`; `times` calls from there on do so. Ends with the object. One at a time, for the calling thread only.
class Failing {
public:
    Failing(Call call, int error, int nth = 1, int times = 1);
    ~Failing();
    Failing(const Failing&) = delete;
    Failing& operator=(const Failing&) = delete;

    /// Returns: how many calls of the kind were made so far.
    int Calls() const;
};

/// Does something just before the call number `nth` (1 is the next) of this kind, as another process might: what was
/// looked at by then is not what the call finds. Once, and for the calling thread only; one at a time.
class Before {
public:
    Before(Call call, int nth, std::function<void()> action);
    ~Before();
    Before(const Before&) = delete;
    Before& operator=(const Before&) = delete;
};

/// Directories of descriptors have no size for this thread while the object lives, as in kernels before 6.2.
class UnsizedDirectories {
public:
    UnsizedDirectories();
    ~UnsizedDirectories();
    UnsizedDirectories(const UnsizedDirectories&) = delete;
    UnsizedDirectories& operator=(const UnsizedDirectories&) = delete;
};

/// Writes of this thread put at most `bytes` at a time while the object lives.
class ShortWrites {
public:
    explicit ShortWrites(size_t bytes);
    ~ShortWrites();
    ShortWrites(const ShortWrites&) = delete;
    ShortWrites& operator=(const ShortWrites&) = delete;
};

// Writes to control files of groups, in every thread of the program.

/// Back to normal, counter at 0.
void ClearControlWrites();
/// The n-th next write to a control file (0: the very next) fails with `error`; with `forever` all after it, too.
void FailControlWrite(int n, int error, bool forever = false);
/// Only writes to control files of this name fail.
void FailControlWritesTo(const std::string& file, int error);
/// Returns: writes to control files since they were cleared, failed ones included.
int ControlWrites();

/// A control file that each group of this hierarchy has while the object lives, whatever the kernel gives: it reads
/// "0\n" at first, below a group whose own reads "1" it reads "1\n", and as in kernels before 5.11 a group that has
/// groups below it takes no write (EBUSY). In every thread of the program; one at a time.
class OldHierarchySwitch {
public:
    explicit OldHierarchySwitch(const std::string& file);
    ~OldHierarchySwitch();
    OldHierarchySwitch(const OldHierarchySwitch&) = delete;
    OldHierarchySwitch& operator=(const OldHierarchySwitch&) = delete;

    /// Returns: what the group's file reads, without the line's end; empty when nobody has looked at it.
    std::string Of(const std::string& directory) const;
};

}  // namespace faults
