// The attack table: what an ordinary user could have put in the way of an agent that runs as root, each path with each
// trick, and each socket with each kind of peer. Refused means: what a link leads to is as it was, nothing of the
// attacker's runs as root, and the agent goes on and answers, or ends with the code that says why.
//
// Many rows share one start of the agent: everything that one trick can be tried on is planted at once.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "AgentFixture.h"

namespace agenttest {
namespace {

constexpr uid_t kAttacker = 65534;  // an ordinary user
constexpr char kPrecious[] = "precious\n";
constexpr int kDirectoryRefused = 12;
constexpr int kConfigurationRefused = 14;

enum class Trick { kLink, kHardLink, kPipe, kForeign, kDirectory };

const char* NameOf(Trick trick) {
    switch (trick) {
        case Trick::kLink: return "Link";
        case Trick::kHardLink: return "HardLink";
        case Trick::kPipe: return "Pipe";
        case Trick::kForeign: return "Foreign";
        case Trick::kDirectory: return "Directory";
    }
    return "";
}

std::string Plain(std::string text) {
    for (char& c : text) c = std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
    return text;
}

class AttackTest : public AgentTest {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "SKIP system: not root: no file can be given to another user";
        AgentTest::SetUp();
        WriteResource({{"resource_limit_mode", "0"}});
        for (const char* folder : {"log", "run", "data", "spool", "selfkill"}) {
            ASSERT_EQ(mkdir((Dir() + "/" + folder).c_str(), 0750), 0);
        }
    }

    /// A script that leaves a mark when somebody runs it.
    std::string WriteScript(const std::string& path, const std::string& mark,
                            const std::string& interpreter = "/bin/sh") {
        EXPECT_TRUE(WriteText(path, "#!" + interpreter + "\n/usr/bin/id -u >" + Dir() + "/" + mark + "\n"));
        EXPECT_EQ(chmod(path.c_str(), 0755), 0);
        return path;
    }
    /// A trick of the same length in the place of `path`; `text` is what an attacker would like to be taken over.
    void Plant(const std::string& path, Trick trick, const std::string& text) {
        const std::string victim = VictimOf(path);
        ASSERT_TRUE(WriteText(victim, text)) << victim;
        unlink(path.c_str());
        switch (trick) {
            case Trick::kLink: ASSERT_EQ(symlink(victim.c_str(), path.c_str()), 0) << path; break;
            case Trick::kHardLink:
                // Of a file that is not the agent's, or it would be no trick to read it.
                ASSERT_EQ(chown(victim.c_str(), kAttacker, kAttacker), 0);
                ASSERT_EQ(link(victim.c_str(), path.c_str()), 0) << path;
                break;
            case Trick::kPipe: ASSERT_EQ(mkfifo(path.c_str(), 0666), 0) << path; break;
            case Trick::kForeign:
                ASSERT_TRUE(WriteText(path, text));
                ASSERT_EQ(chown(path.c_str(), kAttacker, kAttacker), 0);
                break;
            case Trick::kDirectory:
                ASSERT_EQ(mkdir(path.c_str(), 0777), 0) << path;
                ASSERT_TRUE(WriteText(path + "/inside", text));
                break;
        }
    }
    /// Returns: what of the attacker's, or of the victim's, is not as it was; empty when all is.
    std::string HarmTo(const std::string& path, Trick trick, const std::string& text) const {
        if (ReadText(VictimOf(path)) != text) return "the victim's text has changed";
        struct stat info {};
        if (lstat(VictimOf(path).c_str(), &info) != 0) return "the victim is gone";
        if (info.st_uid != (trick == Trick::kHardLink ? kAttacker : 0)) return "the victim has another owner";
        if (trick == Trick::kDirectory) return ReadText(path + "/inside") == text ? "" : "the directory was used";
        if (lstat(path.c_str(), &info) != 0) return "";  // taken away: a name, not what it led to
        if (trick == Trick::kForeign && info.st_uid == kAttacker && S_ISREG(info.st_mode)) {
            return ReadText(path) == text ? "" : "a foreign file was written to";
        }
        return "";
    }
    std::string VictimOf(const std::string& path) const { return Dir() + "/victim." + Plain(path); }

    /// Starts the agent and waits until it runs or has ended.
    Child Launch(const std::vector<std::string>& arguments = {}) {
        std::vector<std::string> all{"--foreground"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        Child agent = StartAgent(all);
        Poll(kStartSeconds, [&] { return Says(agent, " is running, process ") || !agent.Running(); });
        return agent;
    }
    static bool Says(const Child& agent, const std::string& text) {
        return agent.Output().find(text) != std::string::npos;
    }
};

// --- every file that the agent opens, with every trick in its place ---

constexpr char kEvilComponents[] =
    "{\"version\":1,\"components\":[{\"name\":\"Evil\",\"command\":[\"/bin/false\"]}]}\n";
constexpr char kEvilOnline[] = "{\"maxCpu\": 77, \"maxMemory\": 7777}\n";

struct Planted {
    int start;  // which of the two starts it is planted for: what one keeps from working is tried in the other
    const char* path;
    const char* text;
};
constexpr Planted kPlanted[] = {
    {0, "run/tervane.lock", kPrecious},
    {0, "run/broadcast.sock", kPrecious},
    {0, "run/broadcast.sock.lock", kPrecious},
    {0, "run/metrics.sock", kPrecious},
    {0, "log/tervane.log", kPrecious},
    {0, "log/A.log", kPrecious},
    {0, "log/tervane.events.jsonl", kPrecious},
    {0, "data/tervane.stats.db", kPrecious},
    {0, "data/tervane.stats.db-journal", kPrecious},
    {0, "data/tervane.stats.db-wal", kPrecious},
    {0, "data/restarts.json", kPrecious},
    {0, "cgroup_errors", kPrecious},
    {0, "current_os_abnormal.db", kPrecious},
    {0, "current_os_abnormal.db-journal", kPrecious},
    {0, "last_os_abnormal.db", kPrecious},
    {0, "conf/cgroup_resource.json", kPrecious},
    {0, "conf/cgroup_oom_watermark.json", kPrecious},
    {1, "run/tervane.ctl", kPrecious},
    {1, "spool/tervane.db", kPrecious},
    {1, "spool/tervane.db-wal", kPrecious},
    {1, "spool/tervane.db-shm", kPrecious},
    {1, "spool/tervane.db-journal", kPrecious},
    {1, "spool/tervane.db.reserve", kPrecious},
    {1, "conf/components.json", kEvilComponents},
    {1, "conf/online_config.json", kEvilOnline},
};

struct PlantedOutcome {
    bool lives = false;     // runs, and takes a stop
    bool answers = false;   // to tervanectl; where that socket's path is free
    bool tookOver = false;  // something that the attacker wrote
    std::string output;
    std::map<std::string, std::string> harm;
};

class PlantTest : public AttackTest, public testing::WithParamInterface<std::tuple<Trick, Planted>> {
protected:
    const PlantedOutcome& Outcome(Trick trick, int start) {
        static std::map<std::pair<Trick, int>, PlantedOutcome> all;
        const auto found = all.find({trick, start});
        return found != all.end() ? found->second : all[{trick, start}] = Try(trick, start);
    }

private:
    PlantedOutcome Try(Trick trick, int start) {
        // A component that ends at once: there is an event to write and a budget to keep.
        WriteComponents(R"({"name":"A","command":["/bin/false"]})");
        WriteOnline(R"({"osAbnormalSwitch": 1})");
        for (const Planted& planted : kPlanted) {
            if (planted.start == start) Plant(Dir() + "/" + planted.path, trick, planted.text);
        }
        PlantedOutcome outcome;
        Child agent = Launch({"--metrics-listen", "unix:" + Dir() + "/run/metrics.sock"});
        Poll(2, [&] { return Says(agent, "component A (process") || !agent.Running(); });
        outcome.answers = start == 1 || !Ask({"status"}).empty();
        outcome.lives = agent.Running();
        outcome.lives = agent.Stop() == 0 && outcome.lives;
        outcome.output = agent.Output();
        // What was planted names a component and two values; the agent's own files name others.
        outcome.tookOver = Says(agent, "component Evil") || Says(agent, "2 values taken over");
        for (const Planted& planted : kPlanted) {
            if (planted.start == start) {
                outcome.harm[planted.path] = HarmTo(Dir() + "/" + planted.path, trick, planted.text);
            }
        }
        return outcome;
    }
};

TEST_P(PlantTest, HarmsNone) {
    const auto [trick, planted] = GetParam();
    const PlantedOutcome& outcome = Outcome(trick, planted.start);
    EXPECT_EQ(outcome.harm.at(planted.path), "") << planted.path << "\n" << outcome.output;
    EXPECT_TRUE(outcome.lives) << outcome.output;
    EXPECT_TRUE(outcome.answers) << outcome.output;
    EXPECT_FALSE(outcome.tookOver) << outcome.output;
}

std::string PlantedName(const testing::TestParamInfo<PlantTest::ParamType>& info) {
    return Plain(std::get<1>(info.param).path) + "_" + NameOf(std::get<0>(info.param));
}
INSTANTIATE_TEST_SUITE_P(, PlantTest,
                         testing::Combine(testing::Values(Trick::kLink, Trick::kHardLink, Trick::kPipe, Trick::kForeign,
                                                          Trick::kDirectory),
                                          testing::ValuesIn(kPlanted)),
                         PlantedName);

// --- every directory of the agent, and the one above, open to others ---

enum class Opening { kGroup, kEverybody, kSticky, kForeign, kLink };

const char* NameOf(Opening opening) {
    switch (opening) {
        case Opening::kGroup: return "Group";
        case Opening::kEverybody: return "Everybody";
        case Opening::kSticky: return "Sticky";
        case Opening::kForeign: return "Foreign";
        case Opening::kLink: return "Link";
    }
    return "";
}

class OpenPlaceTest : public AttackTest, public testing::WithParamInterface<std::tuple<Opening, std::string>> {};

TEST_P(OpenPlaceTest, EndsTheStartNamed) {
    const auto [opening, folder] = GetParam();
    const std::string path = folder == "above" ? Dir() : Dir() + "/agent" + (folder.empty() ? "" : "/" + folder);
    const std::string agentDir = Dir() + "/agent";
    ASSERT_EQ(mkdir(agentDir.c_str(), 0750), 0);
    for (const char* name : {"conf", "log", "run", "data", "spool", "selfkill"}) {
        ASSERT_EQ(mkdir((agentDir + "/" + name).c_str(), 0750), 0);
    }
    const std::string evil = "{\"version\":1,\"components\":[{\"name\":\"Evil\",\"command\":[\"" +
                             WriteScript(Dir() + "/evil", "mark") + "\"]}]}";
    ASSERT_TRUE(WriteText(agentDir + "/conf/components.json", evil));
    ASSERT_TRUE(WriteText(agentDir + "/conf/resource_config", ReadText(Conf("resource_config"))));
    switch (opening) {
        case Opening::kGroup: ASSERT_EQ(chmod(path.c_str(), 0770), 0); break;
        case Opening::kEverybody: ASSERT_EQ(chmod(path.c_str(), 0777), 0); break;
        case Opening::kSticky: ASSERT_EQ(chmod(path.c_str(), 01777), 0); break;
        case Opening::kForeign: ASSERT_EQ(chown(path.c_str(), kAttacker, kAttacker), 0); break;
        case Opening::kLink:
            ASSERT_EQ(rename(path.c_str(), (Dir() + "/elsewhere").c_str()), 0);
            ASSERT_EQ(symlink((Dir() + "/elsewhere").c_str(), path.c_str()), 0);
            break;
    }
    std::vector<std::string> words = AgentWords({"--for", "2"});
    words[2] = agentDir;
    std::string output;
    const int code = RunToEnd(words, output);
    ASSERT_EQ(chown(Dir().c_str(), 0, 0), 0);
    ASSERT_EQ(chmod(Dir().c_str(), 0750), 0);
    // The directory above may let others make names when they cannot exchange ours.
    const bool tolerated = folder == "above" && opening == Opening::kSticky;
    EXPECT_EQ(code, tolerated ? 0 : kDirectoryRefused) << output;
    if (tolerated) return;
    EXPECT_NE(output.find(path), std::string::npos) << output;
    EXPECT_FALSE(Exists(Dir() + "/mark")) << "something was run";
}

std::string PlaceName(const testing::TestParamInfo<OpenPlaceTest::ParamType>& info) {
    const std::string folder = std::get<1>(info.param);
    return (folder.empty() ? "itself" : folder) + "_" + NameOf(std::get<0>(info.param));
}
INSTANTIATE_TEST_SUITE_P(
    Each, OpenPlaceTest,
    testing::Combine(testing::Values(Opening::kGroup, Opening::kEverybody, Opening::kSticky, Opening::kForeign),
                     testing::Values("", "above", "conf", "log", "run", "data", "spool", "selfkill")),
    PlaceName);
INSTANTIATE_TEST_SUITE_P(Folder, OpenPlaceTest,
                         testing::Combine(testing::Values(Opening::kLink),
                                          testing::Values("conf", "log", "run", "data", "spool", "selfkill")),
                         PlaceName);

// --- configuration: one fault each ---

struct Fault {
    const char* name;
    const char* reason;  // what is said
    void (*make)(const std::string& path, const std::string& place);
};
/// Nothing else may be wrong with it: a program must stay one that can be run.
void AddMode(const std::string& path, int bits) {
    ASSERT_EQ(chmod(path.c_str(), static_cast<mode_t>(support::ModeOf(path) | bits)), 0);
}
const Fault kFaults[] = {
    {"GroupWritable", "writable by its group, mode 0",
     [](const std::string& path, const std::string&) { AddMode(path, 020); }},
    {"Writable", "writable by everybody, mode 0",
     [](const std::string& path, const std::string&) { AddMode(path, 02); }},
    {"Foreign", "owned by user 65534",
     [](const std::string& path, const std::string&) { ASSERT_EQ(chown(path.c_str(), kAttacker, kAttacker), 0); }},
    {"Sticky", "writable by everybody, mode 1777 (chmod o-w)",
     [](const std::string&, const std::string& place) { ASSERT_EQ(chmod(place.c_str(), 01777), 0); }},
    {"GroupPlace", "writable by its group, mode 0770 (chmod g-w)",
     [](const std::string&, const std::string& place) { ASSERT_EQ(chmod(place.c_str(), 0770), 0); }},
    {"ForeignPlace", "owned by user 65534",
     [](const std::string&, const std::string& place) { ASSERT_EQ(chown(place.c_str(), kAttacker, kAttacker), 0); }},
    {"ForeignLinkAbove", "owned by user 65534",
     [](const std::string&, const std::string& place) {
         ASSERT_EQ(rename(place.c_str(), (place + ".real").c_str()), 0);
         ASSERT_EQ(symlink((place + ".real").c_str(), place.c_str()), 0);
         ASSERT_EQ(lchown(place.c_str(), kAttacker, kAttacker), 0);
     }},
};

std::string FaultName(const testing::TestParamInfo<Fault>& info) {
    return info.param.name;
}

class ResourceFileTest : public AttackTest, public testing::WithParamInterface<Fault> {};

TEST_P(ResourceFileTest, EndsTheStart) {
    const std::string place = Dir() + "/place";
    const std::string path = place + "/resource_config";
    ASSERT_TRUE(WriteText(path, ReadText(Conf("resource_config"))));
    ASSERT_EQ(chmod(place.c_str(), 0750), 0);
    std::string output;
    EXPECT_EQ(RunToEnd(AgentWords({"--config", path, "--for", "1"}), output), 0) << output;
    GetParam().make(path, place);
    EXPECT_EQ(RunToEnd(AgentWords({"--config", path, "--for", "1"}), output), kConfigurationRefused) << output;
    EXPECT_NE(output.find("resource configuration " + path + " is not used: "), std::string::npos) << output;
    EXPECT_NE(output.find(GetParam().reason), std::string::npos) << output;
}
INSTANTIATE_TEST_SUITE_P(, ResourceFileTest, testing::ValuesIn(kFaults), FaultName);

class ProgramTest : public AttackTest, public testing::WithParamInterface<Fault> {
protected:
    struct Outcome {
        std::string output;
        std::string status;
        std::vector<std::string> marks;
        bool alive = false;
    };
    const Outcome& Result() {
        static const Outcome outcome = Try();
        return outcome;
    }

private:
    // A component for each fault in its program, one for each in its interpreter, and two that are as they should be.
    Outcome Try() {
        std::string list = R"({"name":"Good","command":[")" + Dir() + R"(/ok/script"]},{"name":"Binary","command":[)" +
                           R"("/usr/bin/touch",")" + Dir() + R"(/Binary"]})";
        WriteScript(Dir() + "/ok/script", "Good");
        EXPECT_EQ(chmod((Dir() + "/ok").c_str(), 0755), 0);
        for (const Fault& fault : kFaults) {
            for (const char* kind : {"Program", "Interpreter"}) {
                const std::string name = kind + std::string(fault.name);
                const std::string place = Dir() + "/" + name + ".place";
                const std::string faulty = place + "/program";
                std::string command = WriteScript(faulty, name);
                EXPECT_EQ(chmod(place.c_str(), 0755), 0);
                fault.make(faulty, place);
                if (*kind == 'I') command = WriteScript(Dir() + "/ok/" + name, name, faulty);
                list += R"(,{"name":")" + name + R"(","command":[")" + command + R"("]})";
            }
        }
        WriteComponents(list);
        Outcome outcome;
        Child agent = Launch();
        Poll(20, [&] { return Exists(Dir() + "/Good") && Exists(Dir() + "/Binary"); });
        Poll(20, [&] {
            outcome.status = Ask({"status"});
            return outcome.status.find("InterpreterForeignLinkAbove") != std::string::npos;
        });
        outcome.alive = agent.Running();
        outcome.alive = agent.Stop() == 0 && outcome.alive;
        outcome.output = agent.Output();
        for (const std::string& name : support::NamesIn(Dir())) outcome.marks.push_back(name);
        return outcome;
    }
};

TEST_P(ProgramTest, IsNotRun) {
    const Outcome& outcome = Result();
    const auto ran = [&](const std::string& name) {
        return std::count(outcome.marks.begin(), outcome.marks.end(), name) != 0;
    };
    EXPECT_TRUE(outcome.alive) << outcome.output;
    EXPECT_TRUE(ran("Good")) << outcome.output;
    EXPECT_TRUE(ran("Binary")) << outcome.output;
    for (const char* kind : {"Program", "Interpreter"}) {
        const std::string name = kind + std::string(GetParam().name);
        EXPECT_FALSE(ran(name));
        const size_t line = outcome.output.find("component " + name + " cannot be started: ");
        ASSERT_NE(line, std::string::npos) << outcome.output;
        const std::string said = outcome.output.substr(line, outcome.output.find('\n', line) - line);
        EXPECT_NE(said.find("not run: "), std::string::npos) << said;
        EXPECT_NE(said.find(GetParam().reason), std::string::npos) << said;
        EXPECT_NE(outcome.status.find(name), std::string::npos) << outcome.status;
    }
}
INSTANTIATE_TEST_SUITE_P(, ProgramTest, testing::ValuesIn(kFaults), FaultName);

// --- every socket of the main process, with every kind of peer ---

enum class Peer { kForeign, kSilent, kSlow, kFlooding, kOversized };

const char* NameOf(Peer peer) {
    switch (peer) {
        case Peer::kForeign: return "Foreign";
        case Peer::kSilent: return "Silent";
        case Peer::kSlow: return "Slow";
        case Peer::kFlooding: return "Flooding";
        case Peer::kOversized: return "Oversized";
    }
    return "";
}

class SocketPeerTest : public AttackTest, public testing::WithParamInterface<std::tuple<std::string, Peer>> {
protected:
    static constexpr int kPeers = 80;  // more than any of them serves at a time
    static constexpr size_t kHugeBytes = 1024 * 1024;

    /// Returns: a connected descriptor, -1 with errno set when there is none.
    int Connect(const std::string& name) const {
        const int type = name == "broadcast.sock" ? SOCK_SEQPACKET : SOCK_STREAM;
        const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, (Dir() + "/run/" + name).c_str(), sizeof address.sun_path - 1);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    static void Send(int fd, const std::string& text) {
        // Ignoring: being cut off in the middle is what is expected here.
        if (send(fd, text.data(), text.size(), MSG_NOSIGNAL) < 0) return;
    }
    /// Becomes the attacker in a process of its own. Returns: what the socket gave him, or why it gave nothing.
    std::string AskAsAttacker(const std::string& name) const {
        int ends[2];
        if (pipe(ends) != 0) return "no pipe";
        const pid_t pid = fork();
        if (pid == 0) {
            char answer[64] = "not connected";
            if (setgid(kAttacker) != 0 || setuid(kAttacker) != 0) _exit(1);
            const int fd = Connect(name);
            if (fd >= 0) {
                strcpy(answer, "refused");
                Send(fd, name == "metrics.sock" ? "GET /metrics HTTP/1.1\r\n\r\n" : "status\n");
                usleep(500000);
                const ssize_t got = recv(fd, answer, sizeof answer - 1, 0);
                if (got > 0) answer[got] = '\0';
            }
            _exit(write(ends[1], answer, strlen(answer)) < 0 ? 1 : 0);
        }
        close(ends[1]);
        char text[64] = {};
        const ssize_t got = read(ends[0], text, sizeof text - 1);
        close(ends[0]);
        waitpid(pid, nullptr, 0);
        return got > 0 ? text : "";
    }
    void Annoy(const std::string& name, Peer peer, std::vector<int>& open) const {
        const int peers = peer == Peer::kOversized ? 4 : kPeers;
        for (int i = 0; i < peers; ++i) {
            const int fd = Connect(name);
            if (fd < 0) continue;
            open.push_back(fd);
            if (peer == Peer::kSlow) Send(fd, "G");
            if (peer == Peer::kFlooding) Send(fd, "GET /metrics HTTP/1.1\r\n\r\n");
            if (peer == Peer::kOversized) Send(fd, std::string(kHugeBytes, 'x'));
        }
    }
};

TEST_P(SocketPeerTest, StarvesNobody) {
    const auto [name, peer] = GetParam();
    if (peer == Peer::kForeign) {
        // Even where directory and socket let him through, he is nobody to the agent.
        ASSERT_EQ(chmod(Dir().c_str(), 0755), 0);
        ASSERT_EQ(chmod((Dir() + "/run").c_str(), 0755), 0);
    }
    Child agent = Launch({"--metrics-listen", "unix:" + Dir() + "/run/metrics.sock"});
    ASSERT_TRUE(agent.Running()) << agent.Output();
    ASSERT_TRUE(Exists(Dir() + "/run/" + name)) << agent.Output();
    const double begun = SecondsNow();
    std::vector<int> open;
    if (peer == Peer::kForeign) {
        ASSERT_EQ(chmod((Dir() + "/run/" + name).c_str(), 0666), 0);
        const std::string word = "error 43\nonly root and the agent's own user may ask\n";
        EXPECT_EQ(AskAsAttacker(name), name == "tervane.ctl" ? word : "refused");
        EXPECT_TRUE(Says(agent, "refused process ")) << agent.Output();
    } else {
        Annoy(name, peer, open);
        for (int round = 0; peer == Peer::kSlow && round < 5; ++round) {
            for (const int fd : open) Send(fd, "E");
            SleepMs(200);
        }
    }
    // Those that sit on the console itself are cut at its deadline; whoever comes after them is answered.
    EXPECT_TRUE(Poll(20, [this] { return !Ask({"status"}).empty(); })) << agent.Output();
    EXPECT_LT(SecondsNow() - begun, 20.0);
    for (const int fd : open) close(fd);
    EXPECT_EQ(agent.Stop(20), 0) << agent.Output();
}

std::string PeerName(const testing::TestParamInfo<SocketPeerTest::ParamType>& info) {
    return Plain(std::get<0>(info.param)) + "_" + NameOf(std::get<1>(info.param));
}
INSTANTIATE_TEST_SUITE_P(, SocketPeerTest,
                         testing::Combine(testing::Values("tervane.ctl", "broadcast.sock", "metrics.sock"),
                                          testing::Values(Peer::kForeign, Peer::kSilent, Peer::kSlow, Peer::kFlooding,
                                                          Peer::kOversized)),
                         PeerName);

}  // namespace
}  // namespace agenttest
