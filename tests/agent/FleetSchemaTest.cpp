// The JSON of the fleet's views is what its document says.
#include "FleetFixture.h"
#include "support/SchemaWalk.h"

using namespace agent;

namespace {

class FleetSchemaTest : public fleettest::FleetFixture {
protected:
    /// Each line of what the command prints.
    void See(const std::string& command) {
        options.json = true;
        Run(command);
        const Json::Value view = Parsed(out);
        const std::string schema = view["schema"].asString();
        ASSERT_EQ(m_schemas.count(schema), 1u) << out << err;
        EXPECT_EQ(view["version"].asInt(), 1);
        support::WalkSchema("", view, m_schemas.at(schema), m_seen[schema]);
    }

    /// With an event that is counted, a change of the configuration, and another one that cannot be read.
    void SeeReport() {
        Json::Value event(Json::objectValue);
        event["id"] = "ab12000000000001-1";
        event["time"] = 999000;
        event["process"] = "QorHips";
        event["type"] = "T_MSG_SELF_KILL";
        event["body"] = "{}";
        Json::Value item(Json::objectValue);
        item["subject"] = "zel.events.web1.QorHips";
        item["time"] = 999001;
        item["payload"] = Compact(event);
        world["events"].append(item);
        for (const char* key : {"all", "group.web"}) {
            Json::Value put(Json::objectValue);
            put["key"] = key;
            put["revision"] = 12 + static_cast<int>(world["config"].size());
            put["time"] = 999000;
            put["value"] = "{}";
            world["config"].append(put);
        }
        Json::Value refusal(Json::objectValue);
        refusal["error"] = "not permitted";
        world["faults"]["history"].append("none");
        world["faults"]["history"].append(refusal);
        See("report");
        world["events"].clear();
    }
    /// Each line of what a rollout prints.
    void SeeRollout() {
        Run("config rollout");
        std::istringstream in(out);
        for (std::string line; std::getline(in, line);) {
            const Json::Value view = Parsed(line);
            const std::string schema = view["schema"].asString();
            ASSERT_EQ(m_schemas.count(schema), 1u) << out << err;
            support::WalkSchema("", view, m_schemas.at(schema), m_seen[schema]);
        }
    }

    const support::Schemas m_schemas = support::ReadSchemas(ZEL_CONSOLE_DOCUMENT);
    std::map<std::string, std::map<std::string, std::string>> m_seen;
};

TEST_F(FleetSchemaTest, EachFleetViewHoldsItsDocument) {
    HostState host = WellHost("web1");
    host.findings = {"something"};
    AddHost(host, 300);
    See("status");
    See("hosts");
    SeeReport();
    Json::Value item(Json::objectValue);
    item["subject"] = "zel.events.web1.QorHips";
    item["time"] = 1000000000;
    item["messageId"] = "web1/ab12000000000001-1";
    item["payload"] = R"({"id":"ab12000000000001-1","time":1000000000,"process":"p","type":"T_MSG_X","body":"{}"})";
    world["events"].append(item);
    options.events.since = "2001-01-01";
    See("events");
    world["setup"] = Parsed(
        R"({"streams":[{"name":"EVENTS","state":"differs",
            "differences":[{"setting":"history","is":"1","should":"2","kept":""}]}]})");
    See("setup");
    AddLevel("all", 12, R"({"maxCpu":20})");
    See("config show");
    See("config history");
    options.config.words = {"maxCpu=30"};
    See("config set");
    options.config.host = "web1";
    See("config show");
    // One that goes back with something left, so that each list has a member.
    options.config.host.clear();
    options.config.wait = "1s";
    AddHost(WellHost("web2"), 1);
    world["when_told"]["web2"]["runs"] = false;
    world["faults"]["put"] = Parsed(R"(["none", {"error": "somebody else was faster", "outcome": "conflict"}])");
    SeeRollout();
    world.removeMember("faults");
    options.event = "ab12-1";
    See("explain");
    options.events.follow = true;
    See("events");
    for (const auto& [schema, members] : m_schemas) {
        if (schema.compare(0, 17, "tervanectl.fleet-") == 0) support::ExpectSchema(schema, members, m_seen[schema]);
    }
}

}  // namespace
