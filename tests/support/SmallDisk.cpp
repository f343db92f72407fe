#include "support/SmallDisk.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace support {
namespace {

// Before the first test, so that every thread of the program sees the same mounts.
class PrivateMounts : public ::testing::Environment {
public:
    void SetUp() override {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            s_missing = std::string("no private mount namespace: ") + std::strerror(errno);
        }
    }
    static const std::string& Missing() { return s_missing; }

private:
    static std::string s_missing;
};
std::string PrivateMounts::s_missing;

const auto* const g_privateMounts = ::testing::AddGlobalTestEnvironment(new PrivateMounts);

}  // namespace

SmallDisk::SmallDisk(long kilobytes) : m_missing(PrivateMounts::Missing()) {
    if (!m_missing.empty()) return;
    const std::string size = "size=" + std::to_string(kilobytes) + "k,mode=0755";
    if (::mount("tmpfs", Path().c_str(), "tmpfs", MS_NOSUID | MS_NODEV, size.c_str()) != 0) {
        m_missing = std::string("no tmpfs can be mounted: ") + std::strerror(errno);
    }
}

SmallDisk::~SmallDisk() {
    if (m_missing.empty()) ::umount2(Path().c_str(), MNT_DETACH);
}

bool SmallDisk::MakeReadOnly() {
    return ::mount(nullptr, Path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

void SmallDisk::Fill() {
    const int fd = ::open((*this / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string block(4096, 'x');
    while (::write(fd, block.data(), block.size()) > 0) {
    }
    ::close(fd);
}

}  // namespace support
