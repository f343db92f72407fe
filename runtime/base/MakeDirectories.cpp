// Directories by descriptor, from one that is trusted down.
#include "base/MakeDirectories.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/Fd.h"
#include "base/TrustedRead.h"

namespace base {
namespace {

constexpr mode_t kDirectoryMode = 0750;

bool IsDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

Status MakeDirectories(const std::string& path) {
    // A directory that exists, be it on a read-only file system or behind a link, is what was wanted.
    if (IsDirectory(path)) return {};
    if (path.empty()) return MakeError(ErrorKind::kInvalidValue, "make directory", path, "the path is empty");
    size_t at = path.find_last_not_of('/');
    while (at != std::string::npos && !IsDirectory(path.substr(0, at + 1))) {
        const size_t slash = path.rfind('/', at);
        at = slash == std::string::npos ? slash : path.find_last_not_of('/', slash);
    }
    const std::string above = at != std::string::npos ? path.substr(0, at + 1) : path[0] == '/' ? "/" : ".";
    // From here on by descriptor: whoever can write further up cannot turn us to another place.
    Result<Fd> holder = OpenTrustedDirectory(above);
    if (!holder) return holder.GetError();
    for (size_t from = at == std::string::npos ? 0 : at + 1; from < path.size();) {
        const size_t end = std::min(path.find('/', from), path.size());
        const std::string name = path.substr(from, end - from);
        from = end + 1;
        if (name.empty()) continue;
        const std::string part = path.substr(0, end);
        if (::mkdirat(holder->Get(), name.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
            return ErrnoError(errno, "make directory", part);
        }
        Fd next(RetryOnSignal(
            [&] { return ::openat(holder->Get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
        if (!next) return ErrnoError(errno, "make directory", part);
        *holder = std::move(next);
    }
    return {};
}

}  // namespace base
