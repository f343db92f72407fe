// Kernel files that a sampling round re-reads.
#include "sampling/ProcReaders.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace zelhost {

bool CKeptFile::Open(const char* path) {
    m_fd = base::Fd(open(path, O_RDONLY | O_CLOEXEC));
    return IsOpen();
}

long CKeptFile::Read(char* buffer, size_t size) const {
    ssize_t got;
    do {
        got = pread(m_fd.Get(), buffer, size - 1, 0);
    } while (got < 0 && errno == EINTR);
    buffer[got > 0 ? got : 0] = '\0';
    return got;
}

namespace {
/// The next unsigned decimal number. Returns: false when there is none.
bool NextNumber(const char*& at, uint64_t& value) {
    while (*at == ' ' || *at == '\t') ++at;
    if (*at < '0' || *at > '9') return false;
    uint64_t number = 0;
    while (*at >= '0' && *at <= '9') {
        const auto digit = static_cast<uint64_t>(*at - '0');
        if (number > (UINT64_MAX - digit) / 10) return false;
        number = number * 10 + digit;
        ++at;
    }
    value = number;
    return true;
}

bool NumberAfter(const char* text, const char* label, uint64_t& value) {
    const char* at = std::strstr(text, label);
    if (at == nullptr) return false;
    at += std::strlen(label);
    return NextNumber(at, value);
}
}  // namespace

bool ParseStatmResident(const char* text, int64_t& pages) {
    uint64_t total = 0, resident = 0;
    if (!NextNumber(text, total) || !NextNumber(text, resident) || resident > INT64_MAX / 2) return false;
    pages = static_cast<int64_t>(resident);
    return true;
}

bool ParseProcIo(const char* text, ProcIo& io) {
    ProcIo found;
    if (!NumberAfter(text, "\nread_bytes:", found.readBytes)) return false;
    if (!NumberAfter(text, "\nwrite_bytes:", found.writeBytes)) return false;
    io = found;
    return true;
}

bool ParseLoadAvg(const char* text, float& oneMinute) {
    uint64_t whole = 0, part = 0;
    if (!NextNumber(text, whole) || *text != '.' || whole > 10000000) return false;
    ++text;
    const char* digits = text;
    if (!NextNumber(text, part)) return false;
    double scale = 1;
    for (; digits < text; ++digits) scale *= 10;
    oneMinute = static_cast<float>(static_cast<double>(whole) + static_cast<double>(part) / scale);
    return true;
}

bool ParseProcStat(const char* text, ProcStat& stat) {
    const char* at = std::strrchr(text, ')');
    if (at == nullptr || at[1] != ' ' || at[2] == '\0') return false;
    ProcStat found;
    found.state = at[2];
    at += 3;
    // Fields by their number in proc(5); the state was field 3.
    for (int field = 4; field <= 24; ++field) {
        while (*at == ' ') ++at;
        const bool negative = *at == '-';
        if (negative) ++at;
        uint64_t value = 0;
        if (!NextNumber(at, value)) return false;
        if (field == 14) found.userTicks = value;
        if (field == 15) found.systemTicks = value;
        if (field == 22) found.startTicks = value;
        if (field == 24) found.residentPages = negative || value > INT64_MAX / 2 ? 0 : static_cast<int64_t>(value);
    }
    stat = found;
    return true;
}

CDescriptorCounter::~CDescriptorCounter() {
    Close();
}

void CDescriptorCounter::Close() {
    if (m_dir != nullptr) closedir(m_dir);
    m_dir = nullptr;
    m_dirFd.Reset();
}

bool CDescriptorCounter::Open() {
    Close();
    m_dirFd = base::Fd(open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!m_dirFd) return false;
    struct stat st {};
    m_cheap = fstat(m_dirFd.Get(), &st) == 0 && st.st_size > 0;
    if (m_cheap) return true;
    m_dir = fdopendir(m_dirFd.Get());
    if (m_dir == nullptr) return false;
    m_dirFd.Release();  // the directory stream owns it now
    return true;
}

int64_t CDescriptorCounter::Count() {
    if (m_cheap) {
        struct stat st {};
        return fstat(m_dirFd.Get(), &st) == 0 ? st.st_size : -1;
    }
    if (m_dir == nullptr) return -1;
    rewinddir(m_dir);
    int64_t count = 0;
    while (const dirent* entry = readdir(m_dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    return count;
}

}  // namespace zelhost
