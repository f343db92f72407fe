// A broker of a test, as a host's duties see one: keys in memory, and failures where they are wanted.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "fleet/FleetKeys.h"

namespace agent {

class ScriptedKeys final : public FleetKeys {
public:
    bool IsConnected() override { return connected; }
    uint64_t Connections() override { return connections; }
    base::Status Judge() override { return judged; }
    fleet::KvRead GetLevel(const std::string& key) override {
        ++reads;
        if (onRead) onRead();
        fleet::KvRead read;
        read.answer = failure;
        if (!connected) read.answer.outcome = fleet::Answer::Outcome::kDisconnected;
        if (read.answer.outcome != fleet::Answer::Outcome::kOk) return read;
        const auto found = levels.find(key);
        if (found == levels.end()) read.answer.outcome = fleet::Answer::Outcome::kNotFound;
        if (found != levels.end()) read.entry = found->second;
        return read;
    }
    fleet::Answer PutState(const std::string& text) override {
        if (putAnswer.outcome == fleet::Answer::Outcome::kOk) states.push_back(text);
        ++puts;
        return putAnswer;
    }

    /// Stores a level with the next revision. Returns: that.
    uint64_t Set(const std::string& key, const std::string& value) {
        levels[key] = {key, ++revision, 0, value, false};
        return revision;
    }
    uint64_t Delete(const std::string& key) {
        levels[key] = {key, ++revision, 0, "", true};
        return revision;
    }
    static fleet::Answer Ok() {
        fleet::Answer answer;
        answer.outcome = fleet::Answer::Outcome::kOk;
        return answer;
    }
    static fleet::Answer Silence(const std::string& words, bool notPermitted = false) {
        fleet::Answer answer;
        answer.outcome = fleet::Answer::Outcome::kTimeout;
        answer.notPermitted = notPermitted;
        answer.text = words;
        return answer;
    }

    bool connected = true;
    uint64_t connections = 1;
    uint64_t revision = 0;
    base::Status judged;
    std::map<std::string, fleet::KvEntry> levels;
    fleet::Answer failure = Ok();
    fleet::Answer putAnswer = Ok();
    std::function<void()> onRead;
    int reads = 0;
    int puts = 0;
    std::vector<std::string> states;  // that were stored
};

}  // namespace agent
