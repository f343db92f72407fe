// Limits that are only observed, on version 2: the kernel itself tells whether anything is written where the groups
// are. Then they are put in force, live.
#include <sys/inotify.h>
#include <unistd.h>

#include "GuestAgent.h"

using namespace guest;

namespace {

/// Writes, and groups made or removed, in the directory of the mount under which the agent makes its groups. While
/// nothing is made there, there is no other one to look at.
class MountWatch {
public:
    explicit MountWatch(const std::string& mount) : m_fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        m_watch = inotify_add_watch(m_fd, mount.c_str(), IN_MODIFY | IN_CREATE | IN_DELETE | IN_ATTRIB | IN_MOVE);
    }
    ~MountWatch() { close(m_fd); }
    MountWatch(const MountWatch&) = delete;
    MountWatch& operator=(const MountWatch&) = delete;
    bool IsOpen() const { return m_watch >= 0; }
    /// Returns: the names that were told since the last call.
    std::string TakeNames() const {
        std::string names;
        alignas(inotify_event) char buffer[8192];
        for (;;) {
            const ssize_t got = read(m_fd, buffer, sizeof buffer);
            if (got <= 0) return names;
            for (ssize_t at = 0; at < got;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                names += (names.empty() ? "" : " ") + std::string(event->len == 0 ? "." : event->name);
                at += static_cast<ssize_t>(sizeof *event + event->len);
            }
        }
    }

private:
    int m_fd;
    int m_watch = -1;
};

class ObserveInGuest : public AgentInGuest {
protected:
    Json::Value Observed(const std::string& group) {
        const Json::Value status = Status();
        for (const Json::Value& entry : status["observed_groups"]) {
            if (entry["name"] == group) return entry;
        }
        return Json::nullValue;
    }
    static std::string Console(const std::string& words) {
        return Command(std::string(TERVANECTL_PROGRAM) + " --app-dir " + kAppDir + " " + words + " 2>&1");
    }
    /// Where every process of the guest is.
    static std::string Places() { return Command("cat /proc/[0-9]*/cgroup | sort -u"); }
    static bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

    void WriteGreedyAndHolder() {
        WriteRoomyResource();
        WriteComponents(
            "{\"name\": \"Greedy\", \"group\": \"collect-defense\", \"command\": [\"/bin/vm-burn\", \"900\"]},"
            "{\"name\": \"Killable\", \"group\": \"collect-defense\", \"command\": [\"/bin/vm-hog\", \"96\", "
            "\"900\"]}");
    }
};

TEST_F(ObserveInGuest, NothingIsWrittenUntilLimitsAreToHold) {
    WriteGreedyAndHolder();
    WriteOwned("agent.json", "{\"version\": 1, \"observe\": true}");
    const MountWatch watch(MountOf("cpu"));
    ASSERT_TRUE(watch.IsOpen());
    const std::string given = ReadText(MountOf("cpu") + "/cgroup.subtree_control");
    const std::string places = Places();
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    const std::string greedy = "collect-defense/Greedy";
    const std::string holder = "collect-defense/Killable";
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        return Observed(greedy)["throttled_ms"].asInt64() > 0 && Observed(holder)["memory_kills"].asInt64() > 0;
    })) << Status()["observed_groups"].toStyledString();
    const pid_t held = PidOf("Killable");
    EXPECT_EQ(Observed(greedy)["cpu_limit_100times"].asInt(), 1140) << "as it would be in force";
    EXPECT_EQ(watch.TakeNames(), "");
    EXPECT_EQ(AllGroups(), std::vector<std::string>());
    EXPECT_EQ(ReadText(MountOf("cpu") + "/cgroup.subtree_control"), given);
    EXPECT_EQ(Places(), places) << "nobody was moved";
    EXPECT_TRUE(Has(Console("status"), "observed only: CPU and memory (by observe in conf/agent.json)"))
        << Console("status");
    EXPECT_TRUE(
        Has(Console("events --type would-kill"), "the kernel would have killed process " + std::to_string(held)));
    EXPECT_EQ(ComponentOf("Killable")["restarts"].asInt(), 0) << "and nobody was";
    EXPECT_EQ(Status()["group_pressure"]["components"].size(), 0U) << "there are no groups that could stall";

    WriteOwned("agent.json", "{\"version\": 1, \"observe\": false}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ProcessesIn("cpu", greedy) == std::vector<pid_t>{PidOf("Greedy")}; }))
        << Console("status");
    EXPECT_EQ(CpuLimit(greedy), 1140);
    EXPECT_GT(MemoryLimit(holder), 0);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Field(GroupDir("cpu", greedy) + "/cpu.stat", "nr_throttled") > 0; }));
    EXPECT_EQ(PidOf("Killable"), held) << "nobody was started anew for it";
    EXPECT_NE(watch.TakeNames(), "") << "what was silent before does tell";
    EXPECT_EQ(Status()["observed"].asInt(), 0);
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(AllGroups(), std::vector<std::string>());
}

TEST_F(ObserveInGuest, ByItsOptionNothingIsWrittenFromStartToEnd) {
    WriteGreedyAndHolder();
    const MountWatch watch(MountOf("cpu"));
    ASSERT_TRUE(watch.IsOpen());
    StartAgent({"--observe"});
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Observed("collect-defense/Greedy")["throttled_ms"].asInt64() > 0; }));
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(watch.TakeNames(), "");
}

}  // namespace
