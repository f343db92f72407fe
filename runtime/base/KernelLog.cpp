// Records of /dev/kmsg.
#include "base/KernelLog.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <charconv>

#include "base/Fd.h"

namespace base {

namespace {

/// The kernel's own bound of a record with its details.
constexpr size_t kMostRecordBytes = 8192;
constexpr size_t kMostRecords = 100000;

}  // namespace

std::optional<KernelMessage> ParseKernelMessage(std::string_view record) {
    const size_t head = record.find(';');
    if (head == std::string_view::npos) return std::nullopt;
    size_t at = 0;
    for (int field = 0; field < 2; ++field) {
        at = record.find(',', at);
        if (at == std::string_view::npos || at > head) return std::nullopt;
        ++at;
    }
    KernelMessage out;
    const char* const end = record.data() + head;
    const auto [stop, error] = std::from_chars(record.data() + at, end, out.sinceBootUs);
    if (error != std::errc() || (stop != end && *stop != ',')) return std::nullopt;
    out.text = record.substr(head + 1);
    out.text = out.text.substr(0, out.text.find('\n'));
    return out;
}

Result<size_t> WalkKernelLog(const char* path, const std::function<bool(const KernelMessage&)>& visit) {
    const Fd log(RetryOnSignal([&] { return open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY); }));
    if (!log) return ErrnoError(errno, "open", path);
    std::array<char, kMostRecordBytes> record;
    size_t count = 0;
    for (size_t tries = 0; tries < kMostRecords; ++tries) {
        const ssize_t length = RetryOnSignal([&] { return read(log.Get(), record.data(), record.size()); });
        if (length == 0 || (length < 0 && errno == EAGAIN)) return count;
        if (length < 0 && errno == EPIPE)
            continue;  // overwritten meanwhile: the next read gives the oldest that is left
        if (length < 0) return ErrnoError(errno, "read", path);
        ++count;
        const auto message = ParseKernelMessage({record.data(), static_cast<size_t>(length)});
        if (message && !visit(*message)) return count;
    }
    return count;
}

}  // namespace base
