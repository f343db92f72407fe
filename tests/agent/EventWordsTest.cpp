// Events in words: one row for each kind, odd bodies, ids as people type them.
#include "EventWords.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HumanText.h"
#include "ReportMarks.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupKeeper.h"

using namespace agent;

namespace {

TailEvent Event(const std::string& type, const std::string& body) {
    TailEvent event;
    event.id = "c5f103700d05934b-42";
    event.time = 1700000000;
    event.process = "tervane";
    event.type = type;
    event.body = body;
    return event;
}

struct Row {
    const char* type;
    const char* body;
    EventKind kind;
    std::vector<std::string> about;
    const char* what;
};

const Row kRows[] = {
    {zel::kOsAbnormalMessage,
     R"({"type":"multi_cgroup_oom_runtime","items":{"a":{"group":"main","oom_kill_delta":0,"parent":false},
        "b":{"group":"collect-defense","oom_kill_delta":2,"parent":false},"c":{"oom_kill_delta":2,"parent":true}}})",
     EventKind::kOom,
     {"collect-defense"},
     "killed for want of memory: collect-defense +2, whole agent +2"},
    {zel::kOsAbnormalMessage,
     R"({"type":"multi_cgroup_oom_after_restart","items":{"b":{"group":"guard","oom_kill_delta":1}}})",
     EventKind::kOom,
     {"guard"},
     "killed for want of memory while the agent was down: guard +1"},
    {zel::kOsAbnormalMessage,
     R"({"mem_usage":91,"available_mem":180,"swap":1,"free_space":40960,"free_inode":12})",
     EventKind::kHost,
     {"host"},
     "memory of the host: 91 % in use, 180 MB available, it swaps; disk of the agent: 40.0 KB and 12 inodes free"},
    {zel::kComponentEndMessage,
     R"({"component":"QorNet","pid":42,"reason":"killed by signal 9","next_start":1700000002,
        "oom":{"group":"collect-defense"}})",
     EventKind::kComponentEnd,
     {"QorNet", "collect-defense"},
     "process 42 ended: killed by signal 9; starts again in 2 s"},
    {zel::kComponentEndMessage,
     R"({"component":"QorNet","pid":42,"reason":"exit code 1","next_start":1700000900,"budget_exhausted":true})",
     EventKind::kComponentEnd,
     {"QorNet"},
     "process 42 ended: exit code 1; its restarts of this hour are used up"},
    {zel::kSelfKillMessage,
     R"({"process":"QorNet","resource":"cpu","value":2512,"limit":1000,"sustained_ms":600000})",
     EventKind::kSelfKill,
     {"QorNet"},
     "ends itself: CPU 25.12 %, its maximum is 10 %, for 10 min"},
    {zel::kSelfKillMessage,
     R"({"process":"QorNet","resource":"memory","value":307200,"limit":204800,"sustained_ms":60000})",
     EventKind::kSelfKill,
     {"QorNet"},
     "ends itself: memory 300.0 MB, its maximum is 200.0 MB, for 1 min"},
    {zel::kThreadStallMessage,
     R"({"process":"QorNet","thread":"worker","tid":7,"silent_ms":6012})",
     EventKind::kStall,
     {"QorNet"},
     "thread \"worker\" (7) is silent for 6 s"},
    {zel::kThreadStallMessage,
     R"({"process":"QorNet","thread":"worker","tid":7,"recovered":true})",
     EventKind::kStall,
     {"QorNet"},
     "thread \"worker\" (7) works again"},
    {zel::kUncleanStopMessage,
     R"({"process":"tervane","pid":9,"cause":"out_of_memory","certain":false})",
     EventKind::kUncleanStop,
     {"tervane"},
     "the run of process 9 did not end in order: presumably out of memory"},
    {zel::kUncleanStopMessage,
     R"({"process":"tervane","pid":9,"cause":"unknown","certain":false})",
     EventKind::kUncleanStop,
     {"tervane"},
     "the run of process 9 did not end in order: why is not known"},
    {zel::kLimitDriftMessage,
     R"({"component":"","group":"","kind":"cpu_quota","found":"no limit","wanted":"1800 us in 100000 us",
        "repaired":true,"contested":true})",
     EventKind::kDrift,
     {"agent"},
     "the CPU quota was changed by somebody else: found no limit, wanted 1800 us in 100000 us; put right, contested"},
    {zel::kLimitDriftMessage,
     R"({"component":"QorNet","group":"collect-defense","kind":"memory","found":"a","wanted":"b",
        "repaired":false,"problem":"no right","cause":"the manager moved it"})",
     EventKind::kDrift,
     {"QorNet", "collect-defense"},
     "the memory limit was changed by somebody else: found a, wanted b; not put right: no right; the manager moved it"},
    {zel::kHostPressureMessage,
     R"({"resource":"io","avg10_100times":4250,"goes_on":true,"consumers":[{"name":"backup","pid":8,"component":""},
        {"name":"tervane","pid":9,"component":"QorNet"},7,{"name":"c","pid":10},{"name":"d","pid":11}]})",
     EventKind::kPressure,
     {"host", "QorNet"},
     "the host waits for io: 42.50 % of the last 10 s, for an hour already; most of it by backup (8), tervane (9)"},
    {zel::kHostPressureMessage,
     R"({"resource":"io","avg10_100times":0,"goes_on":false,"consumers":[{"name":"backup","pid":8,"component":""}]})",
     EventKind::kPressure,
     {"host"},
     "the host waits for io; most of it by backup (8)"},
    {zel::kHostPressureMessage,
     R"({"resource":"io","threshold_percent":60,"avg10_100times":599,"goes_on":false,"consumers":[]})",
     EventKind::kPressure,
     {"host"},
     "the host waits for io"},
    {zel::kHostPressureMessage,
     R"({"resource":"io","threshold_percent":60,"avg10_100times":600,"goes_on":false,"consumers":[]})",
     EventKind::kPressure,
     {"host"},
     "the host waits for io: 6 % of the last 10 s"},
    {zel::kLimitStallMessage,
     R"({"component":"QorNet","resource":"cpu","limit_group":"collect-defense/QorNet","limit_100times":420,
        "stalled_100times":9130,"goes_on":true})",
     EventKind::kPressure,
     {"QorNet"},
     "it waited 91.30 % of the time for a CPU, held back by the limit of its own group collect-defense/QorNet, 4.20 % "
     "of a CPU, for an hour already"},
    {zel::kLimitStallMessage,
     R"({"component":"QorNet","resource":"memory","limit_group":"","limit_kb":20480,"stalled_100times":99999})",
     EventKind::kPressure,
     {"QorNet"},
     "it waited 100 % of the time for memory, held back by the limit of the whole agent, 20.0 MB"},
    {zel::kObservationMessage,
     R"({"limits":5,"order":"--observe"})",
     EventKind::kObservation,
     {"agent"},
     "limits are observed only: CPU and memory, by --observe"},
    {zel::kObservationMessage,
     R"({"limits":5,"in_force":4,"order":"--observe"})",
     EventKind::kObservation,
     {"agent"},
     "limits are observed only: CPU and memory, by --observe; but the memory limit is still in force and not taken "
     "off so far"},
    {zel::kObservationMessage,
     R"({"limits":0,"order":""})",
     EventKind::kObservation,
     {"agent"},
     "limits are to be put in force, and not only observed any more"},
    {zel::kWouldKillMessage,
     R"({"by":"kernel","component":"QorNet","group":"g/QorNet","pid":7,"resource":"memory","value":2048,"limit":1024})",
     EventKind::kWouldKill,
     {"QorNet", "g/QorNet"},
     "the kernel would have killed process 7: memory 2.0 MB, the limit of 1.0 MB is observed only"},
    {zel::kWouldKillMessage,
     R"({"by":"itself","component":"QorNet","group":"","pid":7,"resource":"cpu","value":900,"limit":500})",
     EventKind::kWouldKill,
     {"QorNet"},
     "process 7 would have ended itself: CPU 9 %, the limit of 5 % is observed only"},
    {"T_MSG_NEW", "{\"a\":1}", EventKind::kOther, {"tervane"}, "T_MSG_NEW"},
};

}  // namespace

TEST(EventWordsTest, EachKindIsASentenceAndSaysWhomItIsAbout) {
    for (const Row& row : kRows) {
        const EventInWords words = WordEvent(Event(row.type, row.body));
        EXPECT_EQ(words.kind, row.kind) << row.body;
        EXPECT_EQ(words.about, row.about) << row.body;
        EXPECT_EQ(words.what, row.what) << row.body;
    }
}

TEST(EventWordsTest, EveryViewHasTheSameWords) {
    for (const Row& row : kRows) {
        const TailEvent event = Event(row.type, row.body);
        const std::string said = row.about[0] + ": " + row.what;
        EXPECT_EQ(DescribeEvent(event), ClockText(event.time) + " " + NameOf(row.kind) + " " + said);
        const std::vector<Mark> marks = MarksOfEvents({event}, 0);
        ASSERT_EQ(marks.size(), 1u);
        EXPECT_EQ(marks[0].text, said);
    }
}

TEST(EventWordsTest, EveryKindOfDriftHasWordsOfItsOwn) {
    for (const char* kind : zel::kCgroupDriftKinds) {
        const auto words = WordEvent(Event(zel::kLimitDriftMessage, std::string(R"({"kind":")") + kind + "\"}"));
        EXPECT_NE(words.what.find("the "), std::string::npos) << kind;
        EXPECT_NE(words.what.compare(0, std::string(kind).size() + 1, std::string(kind) + " "), 0) << kind;
    }
}

TEST(EventWordsTest, OddBodiesAreBorneAndTextsMadePrintable) {
    for (const Row& row : kRows) {
        for (const char* body : {"", "null", "[]", "{", "{\"items\":[1]}", "{\"items\":{\"k\":5}}", "{\"pid\":\"x\"}",
                                 "{\"component\":5,\"oom\":7,\"process\":[]}"}) {
            const EventInWords words = WordEvent(Event(row.type, body));
            EXPECT_FALSE(words.what.empty());
            ASSERT_FALSE(words.about.empty());
            EXPECT_FALSE(words.about[0].empty()) << row.type << body;
        }
    }
    const EventInWords words =
        WordEvent(Event(zel::kComponentEndMessage, R"({"component":"a\u001b[31m","reason":"b\nc"})"));
    EXPECT_EQ(words.about[0], "a\\x1B[31m");
    EXPECT_NE(words.what.find("b\\x0Ac"), std::string::npos);
}

TEST(EventWordsTest, IdsAreShownShortAndFoundByWhatIsShown) {
    const std::string id = "c5f103700d05934b-42";
    EXPECT_EQ(ShortId(id), "c5f1-42");
    EXPECT_EQ(ShortId("a-1"), "a-1");
    EXPECT_EQ(ShortId("\033"), "\\x1B");
    for (const char* word : {"c5f1-42", "c-42", "c5f103700d05934b-42"}) EXPECT_TRUE(MeansId(word, id)) << word;
    for (const char* word : {"", "42", "-42", "c5f2-42", "c5f1-4", "c5f1-421", "c5f1", "c5f103700d05934b0-42"}) {
        EXPECT_FALSE(MeansId(word, id)) << word;
    }
}

TEST(EventWordsTest, ATypeIsNamedShortOrAsTheMessage) {
    const TailEvent event = Event(zel::kSelfKillMessage, "{}");
    EXPECT_TRUE(IsOfType(event, EventKind::kSelfKill, "self-kill"));
    EXPECT_TRUE(IsOfType(event, EventKind::kSelfKill, zel::kSelfKillMessage));
    EXPECT_FALSE(IsOfType(event, EventKind::kSelfKill, "drift"));
}
