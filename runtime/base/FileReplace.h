// One way to replace a file: whoever reads it finds the old text or the new one, whole, whatever fails on the way.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "base/Fd.h"
#include "base/Result.h"

namespace base {

/// Whether a replacement outlives the power.
enum class Durability {
    kSynced,  ///< file and directory are on disk when it returns: after a crash the old or the new text is there
    kRenewed  ///< nothing is synced: for a text that the next period writes again
};

/// Whose the new file is.
enum class Owner {
    kWriter,   ///< of the user and group that write it
    kAsBefore  ///< of those of the file that it replaces; where the writer may not give it to that group, no group's
};

/// Makes or replaces a regular file with exactly `text` and exactly `mode`, whatever the process's umask is: written
/// beside it, renamed over it. What is not a regular file is never replaced, since somebody needs that link or device.
/// What a writer that was killed left beside the file goes with the next replacement.
/// On failure: the old file stays and nothing is left beside it. Only a failed sync of the directory comes after the
/// new text is in place: kNotSynced, because the promise of kSynced is not kept.
/// Blocks: for the disk, with kSynced.
Status ReplaceFile(const std::string& path, std::string_view text, mode_t mode, Durability durability,
                   Owner owner = Owner::kWriter);

/// Takes away a file that ReplaceFile made, in the place where that would make it. One that is not there is no failure,
/// what is not a regular file stays.
Status RemoveReplaced(const std::string& path);

/// Has the names in a directory on disk when it returns: of files that were made or renamed there. `place` may be open
/// for naming alone; `path` is for the error.
Status SyncNames(const Fd& place, const std::string& path);

}  // namespace base
