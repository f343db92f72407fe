// Stories of events: where the limit came from, the threads of the record, what was done and what to do; and how an
// event is found.
#include "Explain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>

#include "ConfigCommands.h"
#include "Story.h"
#include "platform/zel/AgentNames.h"
#include "support/Files.h"

using namespace agent;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

class ExplainTest : public ::testing::Test {
protected:
    void SetUp() override {
        Resource("resource_limit_mode = 0\n");
        Write("log/tervane.events.jsonl", "");
        Write("selfkill/none", "");
        for (const char* folder : {"", "conf", "log", "selfkill"}) {
            ASSERT_EQ(chmod((m_directory / folder).c_str(), 0755), 0);
        }
    }
    void Write(const std::string& name, const std::string& text) {
        ASSERT_TRUE(support::WriteText(m_directory / name, text));
    }
    void Resource(const std::string& more) { Write("conf/resource_config", "max_cpu = 10\nmax_memory = 200\n" + more); }
    void Add(const std::string& id, int time, const std::string& type, const Json::Value& body) {
        Json::Value line(Json::objectValue);
        line["id"] = id;
        line["time"] = time;
        line["process"] = "tervane";
        line["type"] = type;
        line["body"] = body.toStyledString();
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        const std::string file = "log/tervane.events.jsonl";
        Write(file, support::ReadText(m_directory / file) + Json::writeString(builder, line) + "\n");
    }
    Json::Value SelfKill(const std::string& process, const std::string& record) {
        Json::Value body(Json::objectValue);
        body["process"] = process;
        body["pid"] = 42;
        body["resource"] = "cpu";
        body["value"] = 2512;
        body["limit"] = 1000;
        body["sustained_ms"] = 600000;
        body["record"] = record;
        return body;
    }
    static Json::Value Drift(bool repaired) {
        Json::Value body(Json::objectValue);
        body["kind"] = "cpu_quota";
        body["component"] = "QorNet";
        body["group"] = "collect-defense";
        body["path"] = "/groups/QorNet";
        body["found"] = "no limit";
        body["wanted"] = "1800 us in 100000 us";
        body["repaired"] = repaired;
        body["problem"] = repaired ? "" : "no right";
        return body;
    }
    int Explain(const std::string& which, bool json = false) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = RunExplain({m_directory.Path(), "tervane", false, which, json});
        m_said = testing::internal::GetCapturedStdout();
        m_error = testing::internal::GetCapturedStderr();
        return code;
    }
    std::string Conf(const std::string& name) const { return m_directory / ("conf/" + name); }

    support::TempDir m_directory;
    std::string m_said;
    std::string m_error;
};

constexpr char kRecord[] = R"({"version":1,"figures":{"cpu_100times":2600,"cpu_minute_100times":2512,"mem_kb":51200,
    "descriptors":38,"missed_rounds":3},"threads":[{"tid":77,"name":"worker\u001b","load_100times":2400,
    "system_100times":100},{"tid":78,"name":"calm","load_100times":5,"system_100times":0}],
    "busiest_thread_stack":"[<0>] one\n[<0>] two\n"})";

}  // namespace

TEST_F(ExplainTest, ASelfKillIsToldWholeWithItsRecord) {
    Write("selfkill/tervane-1-cpu.json", kRecord);
    ASSERT_EQ(chmod((m_directory / "selfkill/tervane-1-cpu.json").c_str(), 0640), 0);
    Add("abcd-1", 1000, zel::kSelfKillMessage, SelfKill("tervane", "/elsewhere/selfkill/tervane-1-cpu.json"));
    EXPECT_EQ(Explain("abcd-1"), 0) << m_error;
    EXPECT_THAT(m_said,
                AllOf(HasSubstr("self-kill of tervane, "), HasSubstr(", event abcd-1\n"),
                      HasSubstr("CPU 25.12 % on the average of a minute, not below 10 % for 10 min\n"),
                      HasSubstr("memory 50.0 MB, 38 descriptors"), HasSubstr("3 rounds of the sampling were missed"),
                      HasSubstr("the maximum of the process: 10 %: " + Conf("resource_config") + ", key max_cpu\n")));
    EXPECT_THAT(m_said, AllOf(HasSubstr("     77      24 %       1 %  worker\\x1B\n"), HasSubstr("calm"),
                              HasSubstr("stack     [<0>] one\n          [<0>] two\n"),
                              HasSubstr("wrote the record /elsewhere/selfkill/tervane-1-cpu.json\n"),
                              HasSubstr("asked process 42 to end, exit code 20; the service manager starts it again"),
                              HasSubstr("to do     see what thread \"worker\\x1B\" does; if the work is wanted: "
                                        "tervanectl config set maxCpu=PERCENT\n")));
}

TEST_F(ExplainTest, ALimitThatWasChangedSinceSaysSo) {
    Add("abcd-1", 1000, zel::kSelfKillMessage, SelfKill("tervane", ""));
    testing::internal::CaptureStdout();
    EXPECT_EQ(RunConfig({m_directory.Path(), "tervane", "set", "maxCpu=30", "", false}), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(Explain("last"), 0);
    EXPECT_THAT(m_said, AllOf(HasSubstr("10 %: " + Conf("online_config.json") +
                                        ", key maxCpu, revision 1 (it says 30 percent now: it was changed since)"),
                              HasSubstr("could not write a record"), Not(HasSubstr("threads"))));
}

TEST_F(ExplainTest, AComponentsLimitIsItsShareOfTheBudget) {
    Resource(
        "resource_limit_mode = 13\ncgroup_groups = collect-defense:60:92160\n"
        "cgroup_components = "
        "Tervane:main:main:2000:15360,QorNetwork:a:a:1:2,QorNet:collect-defense:collect-defense:5000:10240\n");
    Add("abcd-1", 1000, zel::kSelfKillMessage, SelfKill("QorNet", ""));
    Add("abcd-2", 1001, zel::kLimitDriftMessage, Drift(true));
    EXPECT_EQ(Explain("abcd-1"), 0);
    EXPECT_THAT(m_said, AllOf(HasSubstr("the budget of the agent: 10 percent: " + Conf("resource_config")),
                              HasSubstr("its share: QorNet:collect-defense:collect-defense:5000:10240: " +
                                        Conf("resource_config") + ", key cgroup_components\n")));
    Add("abcd-4", 1000, zel::kSelfKillMessage, SelfKill("tervane", ""));
    EXPECT_EQ(Explain("abcd-4"), 0);
    EXPECT_THAT(m_said, HasSubstr("its share: Tervane:main:main:2000:15360: ")) << "the main process has one as well";
    EXPECT_EQ(Explain("last"), 0);
    EXPECT_THAT(m_said, AllOf(HasSubstr("drift of QorNet"), HasSubstr("its share: collect-defense:60:92160: "),
                              HasSubstr("found no limit, wanted 1800 us in 100000 us\n"),
                              HasSubstr("done      put it right\n"), HasSubstr("find who writes /groups/QorNet")));
    Add("abcd-3", 1002, zel::kLimitDriftMessage, Drift(false));
    EXPECT_EQ(Explain("last"), 0);
    EXPECT_THAT(m_said, HasSubstr("done      could not put it right: no right\n"));
}

TEST_F(ExplainTest, AKillForMemorySaysWhoseLimitItWas) {
    Json::Value body(Json::objectValue);
    body["component"] = "QorNet";
    body["pid"] = 42;
    body["reason"] = "killed by signal 9";
    body["next_start"] = 1002;
    body["oom"]["limit_of"] = "component";
    body["oom"]["victim"] = "QorNet";
    body["oom"]["group"] = "collect-defense";
    body["oom"]["limit_kb"] = 30720;
    body["oom"]["path"] = "/groups/QorNet";
    Add("abcd-1", 1000, zel::kComponentEndMessage, body);
    EXPECT_EQ(Explain("last"), 0);
    EXPECT_THAT(m_said,
                AllOf(HasSubstr("the memory limit of component QorNet: 30.0 MB at /groups/QorNet\n"),
                      HasSubstr("the budget of the agent: 200 MB: " + Conf("resource_config") + ", key max_memory"),
                      HasSubstr("its share by the built-in table"), HasSubstr("groupMaxMemory=MB")));
    body["oom"]["limit_of"] = "host";
    Add("abcd-2", 1001, zel::kComponentEndMessage, body);
    EXPECT_EQ(Explain("last"), 0);
    EXPECT_THAT(m_said, AllOf(HasSubstr("the host itself ran out of memory"), Not(HasSubstr("budget"))));
    body.removeMember("oom");
    Add("abcd-3", 1002, zel::kComponentEndMessage, body);
    EXPECT_EQ(Explain("last"), 0);
    EXPECT_THAT(m_said, HasSubstr("its own log says why: " + m_directory / "log/QorNet.log"));
}

TEST_F(ExplainTest, AnEventIsFoundByWhatIsUniqueOfItsId) {
    EXPECT_EQ(Explain("last"), 1);
    EXPECT_THAT(m_error, HasSubstr("no event that tells a story"));
    Add("abcd0000-7", 1000, zel::kLimitDriftMessage, Drift(true));
    Add("abce0000-7", 1001, zel::kUncleanStopMessage, Json::Value(Json::objectValue));
    Add("abce0000-8", 1002, zel::kOsAbnormalMessage, Json::Value(Json::objectValue));
    EXPECT_EQ(Explain("last"), 0);
    EXPECT_THAT(m_said, HasSubstr("unclean-stop of tervane")) << "figures of the host are no story";
    EXPECT_EQ(Explain("abce-8"), 0) << "unless they are asked for";
    EXPECT_EQ(Explain("abcd-7"), 0);
    EXPECT_THAT(m_said, HasSubstr("drift of QorNet"));
    EXPECT_EQ(Explain("abc-7"), 1);
    EXPECT_THAT(m_error, HasSubstr("abc-7 may be any of abcd0000-7 abce0000-7: name the whole id"));
    EXPECT_EQ(Explain("abcd-9"), 1);
    EXPECT_THAT(m_error, HasSubstr("there is no event abcd-9"));
    EXPECT_EQ(Explain("limits"), 2) << "only a running agent knows";
}

TEST_F(ExplainTest, OddBodiesAreTold) {
    int number = 0;
    for (const char* type :
         {zel::kSelfKillMessage, zel::kComponentEndMessage, zel::kLimitDriftMessage, zel::kThreadStallMessage,
          zel::kUncleanStopMessage, zel::kOsAbnormalMessage, "T_MSG_NEW"}) {
        for (const char* text : {"{}", R"({"items":{"a":5,"b":{"oom_kill_delta":1}},"oom":[],"known":5,"stack":7})",
                                 R"({"record":5,"unknown":[1,"x"],"oom":{},"process":{}})"}) {
            Json::Value body;
            ASSERT_TRUE(Json::Reader().parse(text, body));
            const std::string id = "abcd-" + std::to_string(++number);
            Add(id, 1000 + number, type, body);
            EXPECT_EQ(Explain(id), 0) << type << text;
            EXPECT_EQ(Explain(id, true), 0) << type << text;
            Json::Value view;
            EXPECT_TRUE(Json::Reader().parse(m_said, view)) << m_said;
        }
    }
}
