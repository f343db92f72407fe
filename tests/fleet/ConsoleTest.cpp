// The console's process between a test and a real broker, with the rights that enrolled people and hosts have.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "broker/KeyValue.h"
#include "broker/NatsBroker.h"
#include "fleet/ConsoleProcess.h"
#include "fleet/CuttingProxy.h"
#include "fleet/EnrolledBroker.h"
#include "fleet/GreetingBroker.h"
#include "fleet/RealBroker.h"
#include "rule/FleetNames.h"
#include "support/Waiting.h"

namespace fleet {
namespace {

using Items = std::vector<Json::Value>;

const char kHost[] = "db_01";
const char kSpool[] = "00000000000000aa";

Json::Value Line(const std::string& text) {
    return JsonOf("{" + text + "}");
}

Json::Value Put(const std::string& key, const std::string& value) {
    Json::Value request = Line(R"("op":"put","bucket":"config")");
    request["key"] = key;
    request["value"] = value;
    return request;
}

/// Publishes events of one process as its host does.
class EventSource {
public:
    explicit EventSource(const std::string& url) : EventSource(OptionsOf(url)) {}
    explicit EventSource(const BrokerOptions& options) {
        auto opened = NatsBroker::Open(options);
        if (opened) m_broker = std::move(*opened);
    }
    /// Returns: whether all up to that number are stored; what is not acknowledged is looked up.
    bool PublishUpTo(int64_t last, size_t padding = 0) {
        for (int tries = 0; m_last < last && tries < 600;) {
            const std::string payload = std::to_string(m_last + 1) + std::string(padding, 'x');
            const Answer answer =
                m_broker->Publish({EventSubject(kHost, "tervane"), FormatMessageId(kHost, {kSpool, m_last + 1}),
                                   m_last + 1, &payload, m_sequence});
            if (answer.outcome == Answer::Outcome::kOk && answer.sequence > m_sequence) {
                m_sequence = answer.sequence;
                ++m_last;
                tries = 0;
                continue;
            }
            ++tries;
            support::SleepMs(50);
            const Answer read = m_broker->ReadLast(EventSubject(kHost, "tervane"));
            if (read.outcome != Answer::Outcome::kOk) continue;
            m_sequence = read.sequence;
            m_last = read.number;
        }
        return m_last >= last;
    }
    bool IsConnected() const { return m_broker && m_broker->IsConnected(); }

private:
    static BrokerOptions OptionsOf(const std::string& url) {
        BrokerOptions options;
        options.servers = {url};
        options.host = kHost;
        return options;
    }

    std::unique_ptr<NatsBroker> m_broker;
    uint64_t m_sequence = 0;
    int64_t m_last = 0;
};

class ConsoleTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!RealBroker::IsInstalled()) GTEST_SKIP() << "no broker on this machine (package nats-server)";
        if (!EnrolledBroker::IsPossible()) GTEST_SKIP() << "no cryptography for Python on this machine";
        m_fleet = std::make_unique<EnrolledBroker>(kHost);
    }
    std::unique_ptr<ConsoleProcess> Console(const std::string& who, const std::vector<std::string>& more = {}) {
        BrokerOptions options = m_fleet->AdminOptions();
        options.credsFile = m_fleet->Credentials(who);
        return std::make_unique<ConsoleProcess>(options, more);
    }
    std::unique_ptr<EventSource> Source() {
        auto source = std::make_unique<EventSource>(m_fleet->Options(kHost));
        EXPECT_TRUE(support::Eventually([&] { return source->IsConnected(); })) << m_fleet->Log();
        return source;
    }
    std::unique_ptr<EnrolledBroker> m_fleet;
};

TEST_F(ConsoleTest, ABrokerThatOnlyGreetsIsSaidAndHoldsNoEnd) {
    const GreetingBroker greeting;
    BrokerOptions options;
    options.servers = {greeting.Url()};
    ConsoleProcess console(options);
    const Json::Value info = console.Ask(Line(R"("op":"info")"));
    EXPECT_THAT(info["reason"].asString(), testing::StartsWith(greeting.Url()));
    EXPECT_THAT(info["reason"].asString(), testing::HasSubstr(" does not answer"));  // by either library
    EXPECT_FALSE(info["connected"].asBool());
    EXPECT_EQ(console.End(), 0);
}

TEST_F(ConsoleTest, WhatItsStarterLeftOpenIsNotItsOwn) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);  // without close-on-exec, as a shell's "exec 3>..."
    const auto console = Console("chief");
    EXPECT_TRUE(console->Ask(Line(R"("op":"info")")).isObject());
    close(ends[1]);
    pollfd end{ends[0], 0, 0};
    EXPECT_EQ(poll(&end, 1, 60000), 1) << "nobody holds the other end any more";
    close(ends[0]);
    EXPECT_EQ(console->End(), 0);
}

TEST_F(ConsoleTest, KeysArePutComparedReadAndTakenAway) {
    const auto chief = Console("chief");
    const Json::Value info = chief->Ask(Line(R"("op":"info")"));
    EXPECT_TRUE(info["connected"].asBool()) << info << chief->Errors();
    EXPECT_EQ(info["server"]["version"].asString().substr(0, 2), "2.");
    EXPECT_FALSE(info["server"].isMember("unfit"));
    Json::Value put = Put("all", "{\"a\":1}");
    put["expected"] = 0;
    EXPECT_EQ(chief->Ask(put)["revision"].asUInt64(), 1u);
    const Json::Value second = chief->Ask(put);
    EXPECT_EQ(second["outcome"].asString(), "conflict");
    EXPECT_NE(second["error"].asString().find("its last revision is 1"), std::string::npos) << second;
    put["value"] = "{\"a\":2}";
    put["expected"] = 7;
    EXPECT_EQ(chief->Ask(put)["outcome"].asString(), "conflict");
    put["expected"] = 1;
    EXPECT_EQ(chief->Ask(put)["revision"].asUInt64(), 2u);
    EXPECT_EQ(chief->Ask(Put("group.web", "w"))["revision"].asUInt64(), 3u);
    const Json::Value got = chief->Ask(Line(R"("op":"get","bucket":"config","key":"all")"));
    EXPECT_EQ(got["value"].asString(), "{\"a\":2}");
    EXPECT_EQ(got["revision"].asUInt64(), 2u);
    EXPECT_GT(got["time"].asDouble(), 1.6e9);
    EXPECT_FALSE(chief->Ask(Line(R"("op":"get","bucket":"config","key":"host.x")"))["found"].asBool());
    EXPECT_EQ(chief->Ask(Line(R"("op":"put","bucket":"config","key":"all","expected":2)"))["revision"].asUInt64(), 4u);
    const Json::Value gone = chief->Ask(Line(R"("op":"get","bucket":"config","key":"all")"));
    EXPECT_TRUE(gone["found"].asBool() && gone["deleted"].asBool()) << gone;
    EXPECT_EQ(gone["value"].asString(), "");
    EXPECT_EQ(chief->End(), 0);
}

TEST_F(ConsoleTest, ListsComeWholeAndInTheirOrder) {
    const auto chief = Console("chief");
    for (const char* value : {"1", "2", "3"}) chief->Ask(Put("all", value));
    chief->Ask(Put("group.web", "w"));
    chief->Ask(Line(R"("op":"put","bucket":"config","key":"group.web")"));
    const auto ann = Console("ann");
    Items keys, history;
    const Json::Value end = ann->Ask(Line(R"("op":"keys","bucket":"config")"), &keys);
    EXPECT_TRUE(end["ok"].asBool()) << end;
    EXPECT_GE(end["now"].asDouble(), chief->Ask(Line(R"("op":"stream","name":"KV_config")"))["lastTime"].asDouble());
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_EQ(keys[0]["key"].asString(), "all");
    EXPECT_EQ(keys[0]["value"].asString(), "3");
    EXPECT_EQ(keys[0]["revision"].asUInt64(), 3u);
    EXPECT_EQ(keys[1]["key"].asString(), "group.web");
    EXPECT_TRUE(keys[1]["deleted"].asBool());
    EXPECT_TRUE(ann->Ask(Line(R"("op":"history","bucket":"config","key":"all")"), &history)["ok"].asBool());
    ASSERT_EQ(history.size(), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(history[static_cast<size_t>(i)]["value"].asString(), std::to_string(i + 1));
    Items none;
    EXPECT_TRUE(ann->Ask(Line(R"("op":"keys","bucket":"state")"), &none)["ok"].asBool());
    EXPECT_TRUE(ann->Ask(Line(R"("op":"history","bucket":"config","key":"no")"), &none)["ok"].asBool());
    EXPECT_TRUE(none.empty());
    const Json::Value report = ann->Ask(Line(R"("op":"stream","name":"KV_config")"));
    EXPECT_EQ(report["messages"].asUInt64(), 5u) << report;
    EXPECT_EQ(report["subjects"].asUInt64(), 2u);
    EXPECT_EQ(report["lastSequence"].asUInt64(), 5u);
    EXPECT_GE(report["lastTime"].asDouble(), report["firstTime"].asDouble());
    const Json::Value missing = ann->Ask(Line(R"("op":"stream","name":"NONE")"));
    EXPECT_NE(missing["error"].asString().find("not found"), std::string::npos) << missing;
}

TEST_F(ConsoleTest, TenThousandKeysAreListed) {
    const auto chief = Console("chief");
    // What is put is refused, not kept, while the connection is being made.
    Items none;
    ASSERT_TRUE(support::Eventually(
        [&] { return chief->Ask(Line(R"("op":"keys","bucket":"config")"), &none)["ok"].asBool(); }));
    constexpr int kKeys = 10000;
    std::string requests;
    for (int i = 0; i < kKeys; ++i) {
        const std::string number = std::to_string(i + 1);
        requests += "{\"id\":" + number + ",\"op\":\"put\",\"bucket\":\"config\",\"key\":\"host.h" + number +
                    "\",\"value\":\"v" + number + "\",\"expected\":0}\n";
    }
    ASSERT_TRUE(chief->SendText(requests));  // all at once: more than wait here
    for (int i = 0; i < kKeys; ++i) {
        const Json::Value answer = chief->NextLine();
        ASSERT_EQ(answer["id"].asInt(), i + 1) << answer;
        ASSERT_EQ(answer["revision"].asInt(), i + 1) << answer;
    }
    Items items;
    const Json::Value ended = chief->Ask(Line(R"("id":20001,"op":"keys","bucket":"config")"), &items);
    EXPECT_TRUE(ended["ok"].asBool()) << ended;
    ASSERT_EQ(items.size(), static_cast<size_t>(kKeys));
    std::set<std::string> names;
    for (const Json::Value& item : items) {
        names.insert(item["key"].asString());
        EXPECT_EQ("host.h" + item["value"].asString().substr(1), item["key"].asString());
    }
    EXPECT_EQ(names.size(), static_cast<size_t>(kKeys));
    RecordProperty("privateKb", static_cast<int>(chief->ReadPrivateKb()));
    EXPECT_LT(chief->ReadPrivateKb(), 16 << 10);
}

TEST_F(ConsoleTest, EventsBeginAndEndWhereTheyAreAsked) {
    const auto source = Source();
    ASSERT_TRUE(source->PublishUpTo(600));
    const auto ann = Console("ann");
    Items all;
    EXPECT_TRUE(ann->Ask(Line(R"("op":"events","subject":"zel.events.>")"), &all)["ok"].asBool());
    ASSERT_EQ(all.size(), 600u);
    for (size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(all[i]["payload"].asString(), std::to_string(i + 1));
        ASSERT_EQ(all[i]["first"].asUInt64(), i + 1);
        ASSERT_EQ(all[i]["messageId"].asString(), FormatMessageId(kHost, {kSpool, static_cast<int64_t>(i + 1)}));
    }
    EXPECT_EQ(all[0]["subject"].asString(), EventSubject(kHost, "tervane"));
    Json::Value since = Line(R"("op":"events","subject":"zel.events.*.tervane")");
    since["since"] = all[400]["time"].asDouble();
    Items later;
    EXPECT_TRUE(ann->Ask(since, &later)["ok"].asBool());
    ASSERT_FALSE(later.empty());
    // Two within a microsecond would be one time.
    EXPECT_NEAR(static_cast<double>(later[0]["sequence"].asUInt64()), 401, 2);
    EXPECT_EQ(later.back()["sequence"].asUInt64(), 600u);
    Items none;
    EXPECT_TRUE(ann->Ask(Line(R"("op":"events","subject":"zel.events.other.>")"), &none)["ok"].asBool());
    since["since"] = all[599]["time"].asDouble() + 3600;
    EXPECT_TRUE(ann->Ask(since, &none)["ok"].asBool());
    EXPECT_TRUE(none.empty());
}

TEST_F(ConsoleTest, KilledBrokerCostsAFollowerNothing) {
    const auto source = Source();
    ASSERT_TRUE(source->PublishUpTo(300));
    const auto ann = Console("ann");
    const int64_t id = ann->Send(Line(R"("op":"events","subject":"zel.events.>","follow":true)"));
    int64_t seen = 0;
    const auto readTo = [&](int64_t last) {
        while (seen < last) {
            const Json::Value line = ann->Next(id);
            ASSERT_EQ(line["item"]["first"].asInt64(), seen + 1) << line;
            ++seen;
        }
    };
    for (int round = 1; round <= 3; ++round) {
        readTo(round * 400 - 250);  // in the middle of what is there
        ASSERT_TRUE(m_fleet->Kill());
        ASSERT_TRUE(m_fleet->Start());
        ASSERT_TRUE(source->PublishUpTo(round * 400 + 300));
    }
    readTo(1500);
    ann->Send(Line(R"("id":99,"op":"cancel")"));  // no target
    EXPECT_TRUE(ann->Next(99).isMember("error"));
    Json::Value cancel = Line(R"("op":"cancel")");
    cancel["target"] = Json::Int64(id);
    EXPECT_TRUE(ann->Ask(cancel)["ok"].asBool());
    EXPECT_TRUE(ann->Next(id)["ok"].asBool());
    EXPECT_TRUE(ann->Ask(cancel).isMember("error"));
    EXPECT_EQ(ann->End(), 0);
}

TEST_F(ConsoleTest, BrokerThatIsAwayIsSaidAndTriedFor) {
    const auto chief = Console("chief");
    ASSERT_TRUE(chief->Ask(Line(R"("op":"info")"))["connected"].asBool());
    ASSERT_TRUE(m_fleet->Kill());
    Json::Value info;
    ASSERT_TRUE(support::Eventually([&] {
        info = chief->Ask(Line(R"("op":"info")"));
        return !info["connected"].asBool();
    }));
    EXPECT_FALSE(info["reason"].asString().empty()) << info;
    for (const char* asked : {R"("op":"keys","bucket":"config")", R"("op":"get","bucket":"config","key":"all")",
                              R"("op":"stream")", R"("op":"events","subject":"zel.events.>","follow":true)"}) {
        const Json::Value answer = chief->Ask(Line(asked));
        EXPECT_NE(answer["error"].asString().find("no connection to the broker"), std::string::npos) << answer;
    }
    const Json::Value put = chief->Ask(Put("all", "1"));
    EXPECT_EQ(put["outcome"].asString(), "refused") << put;
    EXPECT_NE(put["error"].asString().find("nothing was sent"), std::string::npos) << put;
    ASSERT_TRUE(m_fleet->Start());
    EXPECT_TRUE(support::Eventually([&] { return chief->Ask(Line(R"("op":"info")"))["connected"].asBool(); }));
    EXPECT_EQ(chief->Ask(Put("all", "1"))["revision"].asUInt64(), 1u);
}

// What is refused is waited for, so all are asked before the first answer.
TEST_F(ConsoleTest, EachHasTheRightsOfItsRole) {
    const auto ann = Console("ann"), chief = Console("chief"), host = Console("host");
    EXPECT_TRUE(host->Ask(Line(R"("op":"info")"))["connected"].asBool());
    const Json::Value state = Line(R"("op":"put","bucket":"state","key":"db_5f01","value":"{}")");
    const std::vector<std::pair<ConsoleProcess*, int64_t>> puts{{ann.get(), ann->Send(Put("all", "1"))},
                                                                {chief.get(), chief->Send(state)},
                                                                {host.get(), host->Send(Put("all", "1"))}};
    for (const auto& [who, id] : puts) {
        const Json::Value answer = who->Next(id);
        EXPECT_EQ(answer["outcome"].asString(), "refused") << answer;
        EXPECT_NE(answer["error"].asString().find("have no right"), std::string::npos) << answer;
    }
    std::vector<int64_t> asked;
    for (const char* what : {R"("op":"keys","bucket":"config")", R"("op":"get","bucket":"config","key":"host.other")",
                             R"("op":"events","subject":"zel.events.>")"}) {
        asked.push_back(host->Send(Line(what)));
    }
    for (const int64_t id : asked) {
        const Json::Value answer = host->Next(id);
        EXPECT_NE(answer["error"].asString().find("have no right"), std::string::npos) << answer;
    }
    const Json::Value none = chief->Ask(Line(R"("op":"get","bucket":"config","key":"all")"));
    EXPECT_FALSE(none["found"].asBool()) << none;
}

// Another name than the credentials': a put arrives, and its answer cannot.
TEST_F(ConsoleTest, AnotherNameCostsNoAnswer) {
    const auto chief = Console("chief", {"--name", "other"});
    const Json::Value put = chief->Ask(Put("all", "1"));
    EXPECT_TRUE(put["ok"].asBool()) << put;
    EXPECT_TRUE(Console("chief")->Ask(Line(R"("op":"get","bucket":"config","key":"all")"))["found"].asBool());
}

TEST_F(ConsoleTest, GarbageIsAnsweredAndTheNextLineServed) {
    const auto ann = Console("ann");
    ann->SendText("garbage\n\n{\"id\":5,\"op\":\"purge\"}\n{\"id\":6,\"op\":\"info\",\"x\":1}\n");
    ann->SendText(std::string(3 << 20, 'x') + "\n");
    ann->SendText("{\"id\":7,\"op\":\"info\"}");  // the end of the input ends a line as well
    const std::vector<int64_t> ids{0, 0, 5, 6, 0};
    for (const int64_t id : ids) {
        const Json::Value answer = ann->NextLine();
        EXPECT_EQ(answer["id"].asInt64(), id) << answer;
        EXPECT_FALSE(answer["error"].asString().empty());
    }
    EXPECT_EQ(ann->End(), 0);
    EXPECT_TRUE(ann->NextLine()["connected"].asBool());
}

TEST_F(ConsoleTest, OnlyOneStreamHasAnId) {
    const auto ann = Console("ann");
    std::string follow = R"(,"op":"events","subject":"zel.events.>","follow":true})";
    for (int i = 1; i <= 16; ++i) ann->SendText("{\"id\":" + std::to_string(i) + follow + "\n");
    ann->SendText("{\"id\":3" + follow + "\n{\"id\":17" + follow + "\n");
    EXPECT_NE(ann->Next(0)["error"].asString().find("id 3"), std::string::npos);
    EXPECT_NE(ann->Next(17)["error"].asString().find("16 lists"), std::string::npos);
    EXPECT_TRUE(ann->Ask(Line(R"("id":18,"op":"cancel","target":3)"))["ok"].asBool());
    EXPECT_TRUE(ann->Next(3)["ok"].asBool());
    const auto source = Source();
    ASSERT_TRUE(source->PublishUpTo(1));
    for (int64_t id = 1; id <= 16; ++id) {
        if (id == 3) continue;
        EXPECT_EQ(ann->Next(id)["item"]["first"].asInt64(), 1) << id;
    }
    EXPECT_EQ(ann->End(), 0);
}

TEST_F(ConsoleTest, SlowReaderStopsThePulling) {
    const auto source = Source();
    ASSERT_TRUE(source->PublishUpTo(1500, 20000));  // 30 MB
    const auto ann = Console("ann");
    const int64_t id = ann->Send(Line(R"("op":"events","subject":"zel.events.>")"));
    ASSERT_EQ(ann->Next(id)["item"]["first"].asInt64(), 1);
    support::SleepMs(1500);  // nothing is taken
    const int64_t kept = ann->ReadPrivateKb();
    RecordProperty("privateKb", static_cast<int>(kept));
    EXPECT_LT(kept, 16 << 10);
    for (int64_t i = 2; i <= 1500; ++i) ASSERT_EQ(ann->Next(id)["item"]["first"].asInt64(), i);
    EXPECT_TRUE(ann->Next(id)["ok"].asBool());
}

TEST_F(ConsoleTest, MessageLongerThanAPullComesToo) {
    const auto source = Source();
    ASSERT_TRUE(source->PublishUpTo(2));
    ASSERT_TRUE(source->PublishUpTo(3, 5 << 20));
    ASSERT_TRUE(source->PublishUpTo(4));
    const auto ann = Console("ann");
    Items items;
    EXPECT_TRUE(ann->Ask(Line(R"("op":"events","subject":"zel.events.>")"), &items)["ok"].asBool());
    ASSERT_EQ(items.size(), 4u);
    EXPECT_EQ(items[2]["payload"].asString().size(), (5u << 20) + 1);
}

TEST_F(ConsoleTest, ReaderThatGoesAwayEndsIt) {
    const auto source = Source();
    ASSERT_TRUE(source->PublishUpTo(300, 2000));
    const auto idle = Console("ann");
    ASSERT_TRUE(idle->Ask(Line(R"("op":"info")"))["connected"].asBool());
    idle->CloseOutput();
    EXPECT_EQ(idle->WaitForEnd(), 0);
    const auto busy = Console("ann");
    const int64_t id = busy->Send(Line(R"("op":"events","subject":"zel.events.>","follow":true)"));
    ASSERT_EQ(busy->Next(id)["item"]["first"].asInt64(), 1);
    busy->CloseOutput();
    EXPECT_EQ(busy->WaitForEnd(), 0);
}

TEST_F(ConsoleTest, EndOfTheInputEndsFollowersAndFinishesLists) {
    const auto source = Source();
    ASSERT_TRUE(source->PublishUpTo(1000));
    const auto ann = Console("ann");
    ann->Send(Line(R"("id":1,"op":"events","subject":"zel.events.>","follow":true)"));
    ann->Send(Line(R"("id":2,"op":"events","subject":"zel.events.>")"));
    ann->Send(Line(R"("id":3,"op":"stream")"));
    EXPECT_EQ(ann->Next(1)["item"]["first"].asInt64(), 1);
    std::thread end([&] { EXPECT_EQ(ann->End(), 0); });
    for (int64_t i = 1; i <= 1000; ++i) EXPECT_EQ(ann->Next(2)["item"]["first"].asInt64(), i);
    EXPECT_TRUE(ann->Next(2)["ok"].asBool());
    EXPECT_EQ(ann->Next(3)["messages"].asInt64(), 1000);
    end.join();
}

/// A broker without keys and channels of its own, to which a proxy stands in the way.
class ConsoleCutTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!RealBroker::IsInstalled()) GTEST_SKIP() << "no broker on this machine (package nats-server)";
        ASSERT_TRUE(m_server.Start());
        m_admin = std::make_unique<BrokerAdmin>(m_server);
        ASSERT_TRUE(m_admin->MakeStream());
        ASSERT_TRUE(m_admin->MakeBucket("config"));
    }
    std::unique_ptr<ConsoleProcess> Console(const CuttingProxy& proxy) {
        BrokerOptions options;
        options.servers = {"nats://h1:pw@127.0.0.1:" + std::to_string(proxy.Port())};
        return std::make_unique<ConsoleProcess>(options, std::vector<std::string>{"--name", "h1"});
    }
    RealBroker m_server;
    std::unique_ptr<BrokerAdmin> m_admin;
};

TEST_F(ConsoleCutTest, PutWhoseAnswerIsCutIsUnknownAndStored) {
    CuttingProxy proxy(m_server.Port(), 2, "KV_config");
    const auto console = Console(proxy);
    EXPECT_EQ(console->Ask(Put("all", "1"))["revision"].asUInt64(), 1u);
    Json::Value put = Put("all", "2");
    put["expected"] = 1;
    const Json::Value cut = console->Ask(put);
    EXPECT_EQ(cut["outcome"].asString(), "unknown") << cut;
    EXPECT_EQ(proxy.Cuts(), 1);
    Json::Value got;
    EXPECT_TRUE(support::Eventually([&] {
        got = console->Ask(Line(R"("op":"get","bucket":"config","key":"all")"));
        return got.isMember("found");
    }));
    EXPECT_EQ(got["value"].asString(), "2");
    EXPECT_EQ(console->Ask(put)["outcome"].asString(), "conflict");
}

TEST_F(ConsoleCutTest, StreamThatIsMadeAnewIsReadFromItsBeginning) {
    const CuttingProxy proxy(m_server.Port(), 1, "none");
    EventSource source(m_server.Url("h1"));
    ASSERT_TRUE(source.PublishUpTo(20));
    const auto console = Console(proxy);
    const int64_t id = console->Send(Line(R"("op":"events","subject":"zel.events.>","follow":true)"));
    for (int64_t i = 1; i <= 20; ++i) ASSERT_EQ(console->Next(id)["item"]["first"].asInt64(), i);
    ASSERT_TRUE(m_admin->MakeStream());
    EventSource again(m_server.Url("h1"));
    ASSERT_TRUE(again.PublishUpTo(5));
    for (int64_t i = 1; i <= 5; ++i) {
        const Json::Value line = console->Next(id);
        ASSERT_EQ(line["item"]["sequence"].asInt64(), i) << line;
    }
}

TEST(ConsoleStartTest, WhatCannotStartSaysWhy) {
    const std::vector<std::pair<std::vector<std::string>, const char*>> cases{
        {{}, "no broker is named"},
        {{"--servers", "nats://127.0.0.1:1", "--creds", "/no/such.creds"}, "/no/such.creds"},
        {{"--servers", "nats://127.0.0.1:1", "--ca", "/no/such.pem"}, "/no/such.pem"},
        {{"--server", "nats://127.0.0.1:1"}, "no option"},
    };
    for (const auto& [words, reason] : cases) {
        ConsoleProcess console(words);
        EXPECT_EQ(console.WaitForEnd(), 1);
        const std::string said = console.Errors();
        EXPECT_NE(said.find(reason), std::string::npos) << said;
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    }
}

}  // namespace
}  // namespace fleet
