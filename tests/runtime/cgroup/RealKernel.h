// Fixture on the machine's own version 1 controllers: names carry the pid, everything made is removed again, and a
// machine without them is skipped with the reason.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "kernel/GroupDir.h"
#include "Hierarchy.h"
#include "support/Files.h"

using support::Exists;
using support::ReadValue;

/// A child that waits until it is killed; ends with its parent.
class WaitingChild {
public:
    WaitingChild() {
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) pause();
        }
    }
    ~WaitingChild() { End(); }
    WaitingChild(const WaitingChild&) = delete;
    WaitingChild& operator=(const WaitingChild&) = delete;
    int Pid() const { return m_pid; }
    void End() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = 0;
    }

private:
    pid_t m_pid = 0;
};

enum class Holding { kShared, kKernel };

/// A child in a group of its own that holds 24 MB there, of a kind that cannot be reclaimed; ends with its parent.
class HoldingChild {
public:
    HoldingChild(const zel::cgroup::GroupDir& group, Holding what) {
        int ready[2] = {-1, -1};
        if (pipe(ready) != 0) return;
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const bool holds = group.MoveHere(static_cast<int>(getpid())).Ok() &&
                               (what == Holding::kShared ? HoldShared() : HoldKernel());
            if (!holds || write(ready[1], "x", 1) != 1) _exit(1);
            for (;;) pause();
        }
        close(ready[1]);
        char byte = 0;
        m_holds = read(ready[0], &byte, 1) == 1;
        close(ready[0]);
    }
    ~HoldingChild() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    HoldingChild(const HoldingChild&) = delete;
    HoldingChild& operator=(const HoldingChild&) = delete;
    bool Holds() const { return m_holds; }
    bool Lives() {
        if (waitpid(m_pid, nullptr, WNOHANG) == 0) return true;
        m_pid = 0;
        return false;
    }

private:
    static constexpr size_t kBytes = 24 << 20;

    static bool HoldShared() {
        void* memory = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) return false;
        memset(memory, 1, kBytes);
        return true;
    }
    /// In pipes that nobody reads.
    static bool HoldKernel() {
        static const char block[65536] = {};
        for (size_t held = 0; held < kBytes; held += sizeof block) {
            int ends[2];
            if (pipe2(ends, O_NONBLOCK) != 0) return false;
            if (write(ends[1], block, sizeof block) != static_cast<ssize_t>(sizeof block)) return false;
        }
        return true;
    }

    pid_t m_pid = 0;
    bool m_holds = false;
};

class RealV1 : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "SKIP direct v1: not root: cannot mkdir under /sys/fs/cgroup";
        auto texts = zel::cgroup::ReadLayout();
        ASSERT_TRUE(texts.Ok());
        m_texts = *texts;
        m_cpu = zel::cgroup::FindHierarchy(zel::cgroup::Controller::kCpu, m_texts);
        m_memory = zel::cgroup::FindHierarchy(zel::cgroup::Controller::kMemory, m_texts);
        for (const auto* hierarchy : {&m_cpu, &m_memory}) {
            if (hierarchy->version != zel::cgroup::Version::kV1 || hierarchy->readOnly) {
                GTEST_SKIP() << "SKIP direct v1: no writable cgroup v1 mount: " << hierarchy->reason;
            }
        }
        m_name = "zeltest-" + std::to_string(getpid());
    }

    void TearDown() override {
        for (const auto* hierarchy : {&m_cpu, &m_memory}) {
            if (hierarchy->version != zel::cgroup::Version::kV1) continue;
            auto root = zel::cgroup::GroupDir::Open(hierarchy->mountPoint, hierarchy->version);
            if (!root) continue;
            auto children = root->Children();
            if (!children) continue;
            for (const std::string& child : *children) {
                if (child == m_name || child.compare(0, m_name.size() + 1, m_name + ".") == 0) RemoveTree(*root, child);
            }
        }
    }

    /// Moves whatever is in the group back to where this test started and removes it with its children.
    static void RemoveTree(const zel::cgroup::GroupDir& parent, const std::string& name) {
        auto group = parent.OpenChild(name);
        if (!group) return;
        if (auto children = group->Children()) {
            for (const std::string& child : *children) RemoveTree(*group, child);
        }
        auto moved = zel::cgroup::MoveAll(*group, parent);
        EXPECT_TRUE(moved.Ok()) << (moved ? "" : moved.GetError().Text());
        auto removed = parent.RemoveChild(name);
        EXPECT_TRUE(removed.Ok()) << (removed ? "" : removed.GetError().Text());
    }

    std::string CpuDir(const std::string& group) const { return m_cpu.mountPoint + "/" + group; }
    std::string MemDir(const std::string& group) const { return m_memory.mountPoint + "/" + group; }

    zel::cgroup::Layout m_texts;
    zel::cgroup::Hierarchy m_cpu;
    zel::cgroup::Hierarchy m_memory;
    std::string m_name;
};
