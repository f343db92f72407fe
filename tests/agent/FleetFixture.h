// A fleet in a file: tests of the console's fleet commands write it, and a small program answers as its broker.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>

#include "FleetCommands.h"
#include "fleet/HostState.h"
#include "support/Files.h"

namespace fleettest {

class FleetFixture : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        ASSERT_EQ(0, chmod(m_directory.Path().c_str(), 0755));
        const std::string program = m_directory / "tervane-relay";
        ASSERT_TRUE(support::WriteText(
            program, "#!/bin/sh\nexec python3 " + std::string(ZEL_FAKE_FLEET) + " " + WorldFile() + " \"$@\"\n"));
        ASSERT_EQ(0, chmod(program.c_str(), 0755));
        world["server"]["version"] = "2.10.27";
        world["server"]["cluster"] = "fleet";
        world["now"] = 1000000;
        world["state"] = Json::Value(Json::objectValue);
        world["config"] = Json::Value(Json::arrayValue);
        world["events"] = Json::Value(Json::arrayValue);
        for (const char* name : {"EVENTS", "KV_state", "KV_config"}) AddStream(name);
        options.place.programs = m_directory.Path();
        options.place.servers = {"nats://broker:4222"};
    }
    std::string WorldFile() const { return m_directory / "world.json"; }
    void WriteWorld() { ASSERT_TRUE(support::WriteText(WorldFile(), Compact(world))); }
    static std::string Compact(const Json::Value& value) {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        return Json::writeString(builder, value);
    }
    static Json::Value Parsed(const std::string& text) {
        Json::Value value;
        std::istringstream in(text);
        Json::CharReaderBuilder builder;
        std::string errors;
        EXPECT_TRUE(Json::parseFromStream(builder, in, &value, &errors)) << text << errors;
        return value;
    }
    Json::Value WorldNow() const { return Parsed(support::ReadText(WorldFile())); }
    void AddStream(const std::string& name) {
        Json::Value& stream = world["streams"][name];
        stream["messages"] = 120;
        stream["bytes"] = 5000000;
        stream["maxBytes"] = 100000000;
        stream["discard"] = "old";
        stream["firstTime"] = 1000000 - 7200;
        stream["lastTime"] = 1000000 - 1;
        stream["subjects"] = 4;
        stream["leader"] = "n1";
        for (const char* replica : {"n2", "n3"}) {
            Json::Value one(Json::objectValue);
            one["name"] = replica;
            one["current"] = true;
            one["lag"] = 0;
            one["offline"] = false;
            stream["replicas"].append(one);
        }
    }
    /// A host that is well, silent for so long.
    static agent::HostState WellHost(const std::string& name) {
        agent::HostState state;
        state.host = name;
        state.groups = {"web"};
        state.version = "1.4.0";
        state.agentRuns = true;
        state.uptimeSeconds = 5000;
        state.config = {12, 12, false, ""};
        state.throttled = {{"QorNet", 50}};
        return state;
    }
    void AddHost(const agent::HostState& state, int silentSeconds, const std::string& key = "") {
        Json::Value& item = world["state"][key.empty() ? state.host : key];
        item["time"] = 1000000 - silentSeconds;
        item["value"] = agent::FormatHostState(state);
    }
    /// A change of a level; no text: it is taken away. where: "config", or "meanwhile": before the next put;
    /// "afterwards": after it.
    void AddLevel(const std::string& level, int revision, const std::string& text, const char* where = "config") {
        Json::Value one(Json::objectValue);
        one["key"] = level;
        one["revision"] = revision;
        one["time"] = 1000000 + revision;
        one["value"] = text;
        one["deleted"] = text.empty();
        world[where].append(one);
    }
    /// Runs a command. Returns: its exit code; what it printed is in `out` and `err`.
    int Run(const std::string& command) {
        WriteWorld();
        options.command = command;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = agent::RunFleet(options);
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
        return code;
    }

    support::TempDir m_directory;
    Json::Value world{Json::objectValue};
    agent::FleetOptions options;
    std::string out;
    std::string err;
};

}  // namespace fleettest
