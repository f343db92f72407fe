// A host that runs out of memory and swaps, made for real: the whole memory of a small guest is touched again and
// again, with a disk to swap to and another to write dirty pages to.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "GuestAgent.h"

using namespace guest;

namespace {

constexpr size_t kPageBytes = 4096;

/// Memory as this test counts it. Units: percent, MB.
struct Memory {
    int64_t usage;
    int64_t available;
};

Memory ReadMemory() {
    std::istringstream lines(ReadText("/proc/meminfo"));
    std::string name;
    std::string rest;
    int64_t value = 0;
    int64_t total = 1;
    int64_t available = 0;
    while (lines >> name >> value) {
        std::getline(lines, rest);
        if (name == "MemTotal:") total = value;
        if (name == "MemAvailable:") available = value;
    }
    return {(total - available) * 100 / total, available / 1024};
}

/// Touches `megabytes` of its own memory in a random order until it is killed.
pid_t StartToucher(int megabytes) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    const size_t pages = (static_cast<size_t>(megabytes) << 20) / kPageBytes;
    void* memory = mmap(nullptr, pages * kPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) _exit(1);
    volatile char* bytes = static_cast<char*>(memory);
    uint64_t state = static_cast<uint64_t>(getpid());
    for (size_t i = 0;; ++i) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        const size_t page = i < pages ? i : (state >> 20) % pages;
        bytes[page * kPageBytes] = static_cast<char>(state >> 40 | 1);
    }
}

/// Writes a file over and over without ever asking for it to be on the disk.
pid_t StartWriter(const std::string& path, int megabytes) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    static char block[1 << 16];
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (file < 0) _exit(1);
    for (uint64_t i = 0;; ++i) {
        const off_t at = static_cast<off_t>(i % (static_cast<uint64_t>(megabytes) * 16) * sizeof block);
        if (pwrite(file, block, sizeof block, at) < 0) _exit(1);
    }
}

class PressureInGuest : public AgentInGuest {
protected:
    void TearDown() override {
        for (pid_t pid : m_load) {
            kill(pid, SIGKILL);
            WaitEnd(pid, kSettleSeconds);
        }
        AgentInGuest::TearDown();
    }

    /// What the operating-system monitor itself has sent: the periodic memory line has no rates.
    static std::vector<Json::Value> Findings() {
        std::vector<Json::Value> findings;
        for (const Json::Value& body : Messages("T_MSG_OS_ABNORMAL")) {
            if (body.isMember("maj_flt") || body.isMember("error")) findings.push_back(body);
        }
        return findings;
    }

    static bool HasSwapAlarm() {
        for (const Json::Value& body : Findings()) {
            if (body.isMember("swap")) return true;
        }
        return false;
    }

    std::vector<pid_t> m_load;
};

TEST_F(PressureInGuest, ShortMemoryIsMeasuredAndSwappingToldAtOnce) {
    ASSERT_EQ(Command("mkswap /dev/nvme0n1 >/dev/null && swapon /dev/nvme0n1 2>&1"), "");
    ASSERT_EQ(Command("mke2fs /dev/nvme1n1 >/dev/null 2>&1; mkdir -p /tmp/disk; "
                      "mount -t ext2 /dev/nvme1n1 /tmp/disk 2>&1"),
              "");
    // Everything counts as short of memory, and the interval is longer than two days.
    WriteResource({{"resource_limit_mode", "0"}});
    WriteOnline("{\"osAbnormalSwitch\": 1, \"osAbnormalReportInterval\": 100000, \"availableMemThreshold\": 4000}");
    WriteComponents("");
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());

    // What this test reads meanwhile: the agent's figures lie within it, but for what comes and goes between two looks.
    Memory low = ReadMemory();
    Memory high = low;
    ASSERT_TRUE(Poll(kSettleSeconds, [&] {
        const Memory now = ReadMemory();
        low = {std::min(low.usage, now.usage), std::min(low.available, now.available)};
        high = {std::max(high.usage, now.usage), std::max(high.available, now.available)};
        return !Findings().empty();
    })) << "the first check tells";
    const Json::Value first = Findings()[0];
    EXPECT_GE(first["mem_usage"].asInt64(), low.usage - 3) << first.toStyledString();
    EXPECT_LE(first["mem_usage"].asInt64(), high.usage + 3) << first.toStyledString();
    EXPECT_GE(first["available_mem"].asInt64(), low.available - 16) << first.toStyledString();
    EXPECT_LE(first["available_mem"].asInt64(), high.available + 16) << first.toStyledString();
    EXPECT_FALSE(first.isMember("swap")) << first.toStyledString();
    EXPECT_FALSE(HasSwapAlarm());

    // First full memory alone, until that is no news any more; then the fight for it.
    m_load.push_back(StartToucher(420));
    ASSERT_TRUE(Poll(kSettleSeconds, [] { return Findings().back()["mem_usage"].asInt() >= 90; })) << "rising is told";
    SleepMs(15000);
    m_load.push_back(StartWriter("/tmp/disk/file", 300));
    m_load.push_back(StartToucher(200));
    m_load.push_back(StartToucher(150));
    ASSERT_TRUE(Poll(180, HasSwapAlarm)) << "no swap alarm, swapped out " << Field("/proc/vmstat", "pswpout");
    EXPECT_GT(Field("/proc/vmstat", "pswpout"), 1000);
    EXPECT_LT(ReadMemory().available, 100);

    for (const Json::Value& body : Findings()) {
        // The same verdict from the delivered figures: an alarm has at least five indices at their thresholds.
        const std::map<std::string, int64_t> thresholds{{"pgmajfault", 50},
                                                        {"pageoutrun", 10},
                                                        {"pgrotated", 2},
                                                        {"nr_vmscan_write", 10},
                                                        {"nr_vmscan_immediate_reclaim", 10},
                                                        {"maj_flt", 5}};
        int reached = 0;
        for (const auto& threshold : thresholds) {
            if (body.isMember(threshold.first) && body[threshold.first].asInt64() >= threshold.second) ++reached;
        }
        EXPECT_EQ(reached >= 5, body.isMember("swap")) << body.toStyledString();
        if (!body.isMember("swap")) continue;
        EXPECT_EQ(body["swap"].asInt(), 1);
        EXPECT_GE(body["mem_usage"].asInt(), 80);
        EXPECT_LT(body["available_mem"].asInt(), 100);
    }
}

}  // namespace
