// System calls that fail on demand, in the calling thread only. The test program's definitions stand in front of those
// of the C library, for the shared library under test as well.
#pragma once

#include <cstddef>

namespace faults {

enum class Call { kRead, kWrite, kFsync, kStatvfs, kThreadCreate };

/// From its construction on, the call number `nth` (1 is the next) of this kind fails with `error`; `times` calls from
/// there on do so. Ends with the object.
class Failing {
public:
    Failing(Call call, int error, int nth = 1, int times = 1);
    ~Failing();
    Failing(const Failing&) = delete;
    Failing& operator=(const Failing&) = delete;

    /// Returns: how many calls of the kind were made so far.
    int Calls() const;
};

/// Writes of this thread put at most `bytes` at a time while the object lives.
class ShortWrites {
public:
    explicit ShortWrites(size_t bytes);
    ~ShortWrites();
    ShortWrites(const ShortWrites&) = delete;
    ShortWrites& operator=(const ShortWrites&) = delete;
};

}  // namespace faults
