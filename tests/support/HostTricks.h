// What tests do to the host: act as an ordinary user, fill a disk. Nothing of it outlives the test.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

constexpr uid_t kNobody = 65534;

/// Acts as an ordinary user for as long as it lives, where the process is root: root ignores permissions.
class Unprivileged {
public:
    Unprivileged() : m_wasRoot(geteuid() == 0) { EXPECT_EQ(0, m_wasRoot ? seteuid(kNobody) : 0); }
    ~Unprivileged() { EXPECT_EQ(0, m_wasRoot ? seteuid(0) : 0); }

private:
    bool m_wasRoot;
};

/// Gives a file or directory to an ordinary user, where the process is root.
inline void GiveAway(const std::string& path) {
    ASSERT_EQ(0, geteuid() == 0 ? chown(path.c_str(), kNobody, kNobody) : 0) << path;
}

/// Runs `body` on a thread that sees a tmpfs of its own in the place of `directory`, which nobody else sees.
/// Returns: empty, or why that is not possible here.
inline std::string OnSmallDisk(const std::string& directory, const char* options, const std::function<void()>& body) {
    std::string reason;
    std::thread([&] {
        // A thread may leave the others' mount namespace on its own; its mounts end with it.
        if (unshare(CLONE_NEWNS) != 0) {
            reason = std::string("no mount namespace of its own: ") + strerror(errno);
            return;
        }
        if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("zel-test", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                  (std::string("mode=0700,") + options).c_str()) != 0) {
            reason = std::string("no tmpfs of its own: ") + strerror(errno);
            return;
        }
        body();
    }).join();
    return reason;
}

/// Fills the disk of `filler` with that file.
inline void FillDisk(const std::string& filler) {
    const std::string block(4096, 'x');
    const int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    while (write(fd, block.data(), block.size()) > 0) {
    }
    EXPECT_EQ(ENOSPC, errno);
    close(fd);
}
