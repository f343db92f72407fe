// The narrated demonstration: each fact that it tells is held against what the kernel, the agent's own console and its
// delivered events say at the same time.
#include "AgentFixture.h"

#include <signal.h>
#include <unistd.h>

#include <regex>

namespace agenttest {
namespace {

constexpr int kStorySeconds = 300;  ///< bound on a busy machine for what takes 40 s

/// One line, blanks where it was folded.
std::string Unfolded(const std::string& text) {
    return std::regex_replace(text, std::regex("\\s+"), " ");
}

int64_t AsNumber(const std::string& text) {
    return strtoll(text.c_str(), nullptr, 10);
}

class StoryTest : public AgentOnV1Test {
protected:
    /// It configures a directory that is nobody's yet.
    void SetUp() override {
        AgentOnV1Test::SetUp();
        for (const char* name : {"resource_config", "components.json"}) unlink(Conf(name).c_str());
    }
    std::vector<std::string> Words() const {
        return {ZEL_STORY_PROGRAM, "--samples", ZEL_SAMPLE_DIR "/..", "--app-dir", m_dir};
    }
    std::string Leaf(const std::string& root, const std::string& name) const {
        return root + "/" + Tree() + "/collect-defense/" + name;
    }
    int64_t QuotaUs(const std::string& group) const { return ReadNumber(group + "/cpu.cfs_quota_us"); }

    /// What the agent did, looked at while the story was told up to `before` bytes, and up to `after` when it was
    /// known.
    struct Look {
        size_t before = 0;
        size_t after = 0;
        int64_t politePieces = 0;
        int64_t politeHeld = 0;
        int64_t greedyPieces = 0;
        int64_t greedyQuotaUs = 0;
        int64_t wholeQuotaUs = 0;
        int64_t hungryLimitBytes = 0;
        int64_t kills = 0;
        size_t groups = 0;
        size_t processes = 0;
    };
    Look TakeLook(const Child& story) {
        Look look;
        look.before = Unfolded(story.Output()).size();
        const Json::Value polite = Status("QorHips");
        const Json::Value greedy = Status("QorNet");
        look.politePieces = polite["own"]["polite"]["pieces"].asInt64();
        look.politeHeld = polite["own"]["polite"]["held"].asInt64();
        look.greedyPieces = greedy["own"]["greedy"]["pieces"].asInt64();
        look.greedyQuotaUs = QuotaUs(Leaf(CpuRoot(), "QorNet"));
        look.wholeQuotaUs = QuotaUs(CpuRoot() + "/" + Tree());
        look.hungryLimitBytes = ReadNumber(Leaf(MemoryRoot(), "QorWebGuard") + "/memory.limit_in_bytes");
        look.kills = ReadField(Leaf(MemoryRoot(), "QorWebGuard") + "/memory.oom_control", "oom_kill");
        look.groups = AllGroups().size();
        look.processes = AllProcesses().size();
        look.after = Unfolded(story.Output()).size();
        return look;
    }

    /// Runs it to its end with a look about once a second.
    void Tell() {
        Child story = Spawn(Words(), Environment(), NextOutput());
        const double end = SecondsNow() + kStorySeconds;
        while (story.Running() && SecondsNow() < end) {
            const Look look = TakeLook(story);
            if (look.politePieces > 0 && look.greedyPieces > 0) m_looks.push_back(look);
            SleepMs(700);
        }
        ASSERT_FALSE(story.Running()) << story.Output();
        m_raw = story.Output();
        m_told = Unfolded(m_raw);
        ASSERT_EQ(0, story.WaitEnd(1)) << m_raw;
        ASSERT_GT(m_looks.size(), 5u) << m_raw;
    }

    /// The parts of what was told that the expression names. Empty, with a failure, when it was not told.
    std::vector<std::string> Told(const std::string& expression) {
        std::smatch found;
        if (!std::regex_search(m_told, found, std::regex(expression))) {
            ADD_FAILURE() << "not told: " << expression << "\n" << m_raw;
            return std::vector<std::string>(10);
        }
        m_toldAt = static_cast<size_t>(found.position(0));
        std::vector<std::string> parts;
        for (size_t i = 1; i < found.size(); ++i) parts.push_back(found[i]);
        return parts;
    }
    /// The last look that was over before that was told, and the first one that began after it.
    const Look& Before(size_t at) const {
        const Look* best = &m_looks.front();
        for (const Look& look : m_looks) {
            if (look.after <= at) best = &look;
        }
        return *best;
    }
    const Look& After(size_t at) const {
        for (const Look& look : m_looks) {
            if (look.before > at) return look;
        }
        return m_looks.back();
    }
    size_t At(const std::string& part) const { return m_told.find(part); }

    /// A number of things done between two points of the story, against what the looks around them allow.
    void ExpectDone(int64_t told, int64_t Look::*figure, size_t begin, size_t end) {
        const int64_t most = After(end).*figure - Before(begin).*figure;
        const int64_t least = Before(end).*figure - After(begin).*figure;
        EXPECT_LE(told, most) << m_raw;
        EXPECT_GE(told, least / 2) << m_raw;
        EXPECT_GT(told, 0) << m_raw;
    }
    std::vector<Json::Value> Bodies(const std::string& type) const {
        std::vector<Json::Value> bodies;
        for (const Json::Value& event : Events()) {
            Json::Value body;
            if (event["type"].asString() == type && ParseJson(event["body"].asString(), body)) bodies.push_back(body);
        }
        return bodies;
    }

    void ExpectStartTold() {
        const auto start = Told(
            "It runs: (\\d+) processes in (\\d+) control groups \\(v1\\)\\. Together they may use "
            "(\\d+) % of one CPU");
        const Look& look = After(m_toldAt);
        EXPECT_EQ(static_cast<size_t>(AsNumber(start[0])) + 1, look.processes) << "and the demonstration itself";
        EXPECT_EQ(static_cast<size_t>(AsNumber(start[1])) * 2, look.groups) << "in two hierarchies";
        EXPECT_EQ(AsNumber(start[2]) * 1000, look.wholeQuotaUs);
    }
    void ExpectWorkTold() {
        const size_t begin = At("2. A polite worker");
        const auto polite = Told("QorHips did (\\d+) pieces of work, was told to hold back (\\d+) times");
        const size_t end = m_toldAt;
        ExpectDone(AsNumber(polite[0]), &Look::politePieces, begin, end);
        ExpectDone(AsNumber(polite[1]), &Look::politeHeld, begin, end);
        ExpectDone(AsNumber(Told("QorNet did (\\d+) pieces;")[0]), &Look::greedyPieces, begin, end);
    }
    void ExpectKillTold() {
        const auto before = Told("QorWebGuard, process (\\d+), takes more .* its limit is ([0-9.]+) MB");
        const auto kill = Told("QorWebGuard: process (\\d+) ended: killed by signal 9");
        const std::vector<Json::Value> ends = Bodies("T_MSG_COMPONENT_END");
        ASSERT_FALSE(ends.empty()) << m_raw;
        EXPECT_EQ(ends[0]["pid"].asInt64(), AsNumber(kill[0]));
        EXPECT_EQ(before[0], kill[0]);
        EXPECT_DOUBLE_EQ(strtod(before[1].c_str(), nullptr) * 1048576,
                         static_cast<double>(m_looks.front().hungryLimitBytes));
        EXPECT_GE(After(m_toldAt).kills, 1) << "by the kernel's own counter";
        EXPECT_TRUE(Told("the 4 other components were not touched.*\\$ tervanectl explain").empty());
        // What explains it is the console's own answer about that very process.
        Told("measured process " + kill[0] + ": killed by signal 9");
    }
    void ExpectDriftTold() {
        const auto drift = Told(
            "the quota is ([0-9.]+) % again, and there is an event: the CPU quota was changed by somebody else: found "
            "([^,]+), "
            "wanted (\\d+) us in");
        const std::vector<Json::Value> drifts = Bodies("T_MSG_LIMIT_DRIFT");
        ASSERT_EQ(1u, drifts.size()) << m_raw;
        EXPECT_TRUE(drifts[0]["repaired"].asBool());
        EXPECT_EQ(drifts[0]["found"].asString(), drift[1]);
        EXPECT_EQ(AsNumber(drift[2]), m_looks.front().greedyQuotaUs);
        EXPECT_DOUBLE_EQ(strtod(drift[0].c_str(), nullptr) * 1000, static_cast<double>(After(m_toldAt).greedyQuotaUs));
        Told("\\$ echo -1 > " + Leaf(CpuRoot(), "QorNet") + "/cpu.cfs_quota_us");
    }
    void ExpectChangeTold() {
        const auto change = Told(
            "In force: the whole agent (\\d+) % instead of (\\d+) %, QorNet ([0-9.]+) % instead of "
            "([0-9.]+) %");
        EXPECT_EQ(AsNumber(change[0]) * 1000, m_looks.back().wholeQuotaUs);
        EXPECT_EQ(AsNumber(change[1]) * 1000, m_looks.front().wholeQuotaUs);
        EXPECT_DOUBLE_EQ(strtod(change[2].c_str(), nullptr) * 1000, static_cast<double>(m_looks.back().greedyQuotaUs));
        EXPECT_DOUBLE_EQ(strtod(change[3].c_str(), nullptr) * 1000, static_cast<double>(m_looks.front().greedyQuotaUs));
        EXPECT_NE(std::string::npos, ReadText(Conf("online_config.json")).find("\"groupMaxCpu\"")) << m_raw;
    }
    void ExpectSummaryTold() {
        const size_t begin = At("What came of it");
        const auto work =
            Told("QorHips did (\\d+) pieces of work and held back (\\d+) times; QorNet did (\\d+) and never");
        EXPECT_GE(AsNumber(work[0]), Before(begin).politePieces);
        EXPECT_GE(AsNumber(work[1]), Before(begin).politeHeld);
        EXPECT_GE(AsNumber(work[2]), Before(begin).greedyPieces);
        EXPECT_LE(AsNumber(work[0]), 2 * m_looks.back().politePieces);
        EXPECT_LE(AsNumber(work[1]), 2 * m_looks.back().politeHeld);
        EXPECT_LE(AsNumber(work[2]), 2 * m_looks.back().greedyPieces);
        const auto counts = Told(
            "(\\d+) kill for want of memory explained, (\\d+) change by others put right, (\\d+) new "
            "limit taken over; (\\d+) events, 0 lost");
        EXPECT_EQ("1", counts[0]);
        EXPECT_EQ(Bodies("T_MSG_LIMIT_DRIFT").size(), static_cast<size_t>(AsNumber(counts[1])));
        EXPECT_EQ("1", counts[2]);
        EXPECT_GE(AsNumber(counts[3]), 2);
        EXPECT_LE(static_cast<size_t>(AsNumber(counts[3])), Events().size());
        EXPECT_EQ(
            static_cast<size_t>(AsNumber(Told("nothing is left of its control groups \\((\\d+) directories\\)")[0])),
            m_looks.front().groups);
    }

    std::vector<Look> m_looks;
    std::string m_raw;
    std::string m_told;
    size_t m_toldAt = 0;
};

}  // namespace

TEST_F(StoryTest, EveryToldFactIsWhatHappened) {
    Tell();
    if (HasFatalFailure()) return;
    ExpectStartTold();
    ExpectWorkTold();
    ExpectKillTold();
    ExpectDriftTold();
    ExpectChangeTold();
    ExpectSummaryTold();
    EXPECT_EQ(std::string::npos, m_raw.find('\033')) << "terminal codes without a terminal";
    ExpectNothingLeft();
}

TEST_F(StoryTest, AnInstallationIsNotConfiguredAnew) {
    WriteComponents("");
    const std::string components = ReadText(Conf("components.json"));
    std::string output;
    EXPECT_EQ(1, RunToEnd(Words(), output)) << output;
    EXPECT_NE(output.find(Conf("components.json") + " is there already"), std::string::npos) << output;
    EXPECT_EQ(components, ReadText(Conf("components.json")));
    EXPECT_FALSE(Exists(Conf("resource_config"))) << "nothing was written beside it";
    ExpectNothingLeft();
}

TEST_F(StoryTest, AnInterruptEndsItInOrderAndLeavesNothing) {
    Child story = Spawn(Words(), Environment(), NextOutput());
    ASSERT_TRUE(Poll(kStartSeconds, [&] { return story.Output().find("2. A polite") != std::string::npos; }))
        << story.Output();
    story.Signal(SIGINT);
    EXPECT_EQ(0, ExitCodeOf(story.WaitEnd(kStopSeconds))) << story.Output();
    EXPECT_NE(std::string::npos, story.Output().find("it was ended early")) << story.Output();
    ExpectNothingLeft();
}

TEST_F(StoryTest, ItsAgentDoesNotOutliveItWhenItIsKilled) {
    Child story = Spawn(Words(), Environment(), NextOutput());
    ASSERT_TRUE(Poll(kStartSeconds, [&] { return story.Output().find("2. A polite") != std::string::npos; }))
        << story.Output();
    story.Kill();
    EXPECT_TRUE(Poll(kStopSeconds, [this] { return AllProcesses().empty() && AllGroups().empty(); }));
    ExpectNothingLeft();
}

TEST_F(StoryTest, WithoutControlGroupsItSaysWhatItNeeds) {
    std::string output;
    const std::string hide = "mount -t tmpfs -o ro none " + CpuRoot() + " && mount -t tmpfs -o ro none " + MemoryRoot();
    EXPECT_EQ(1, RunToEnd(InPrivateMounts(hide, Words()), output, kStorySeconds)) << output;
    EXPECT_NE(std::string::npos, Unfolded(output).find("it needs control groups for CPU and memory")) << output;
    EXPECT_EQ(std::string::npos, output.find("2. A polite")) << output;
    ExpectNothingLeft();
}

}  // namespace agenttest
