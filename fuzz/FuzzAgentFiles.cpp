// The files that the agent reads back or is configured by, one reader to an input; the first byte chooses. What is
// refused says why on one line, what is taken keeps its promises, and what is written can be read.
#include <json/json.h>

#include <set>
#include <string>

#include "AgentConfig.h"
#include "ComponentsConfig.h"
#include "EventTail.h"
#include "EventWords.h"
#include "FuzzSupport.h"
#include "LoadProfile.h"
#include "OomRecord.h"
#include "Pulse.h"
#include "Printable.h"
#include "RestartBudget.h"
#include "UncleanStop.h"
#include "events/HttpService.h"
#include "support/RecordedLog.h"

namespace {

using fuzzing::Require;

template <class T>
bool IsRefused(const base::Result<T>& result) {
    if (result) return false;
    Require(!result.GetError().Text().empty(), "a refusal says why");
    return true;
}

void CheckConfig(const std::string& text) {
    const base::Result<agent::AgentConfig> config = agent::ParseAgentConfig(text);
    if (IsRefused(config)) return;
    const zelhost::SinkOptions& sinks = config->sinks;
    Require(sinks.httpUrl.empty() || zelhost::IsHttpUrl(sinks.httpUrl), "an address that is taken can be posted to");
    Require(fuzzing::IsOnOneLine(sinks.httpHeader) && fuzzing::IsOnOneLine(config->textFile), "texts are one line");
    Require(sinks.httpTimeoutMs >= 100 && sinks.httpTimeoutMs <= 60000, "the time limit is in its range");
    Require(config->textFileSeconds >= 1 && config->textFileSeconds <= 3600, "the period is in its range");
    zelhost::HostOptions host;
    host.isMain = true;
    agent::ApplyAgentConfig(*config, host);
    Require(host.metrics.textFile == config->textFile, "the main process has the text file");
}

void CheckComponents(const std::string& text) {
    const auto components = agent::ParseComponents(text);
    if (IsRefused(components)) return;
    std::set<std::string> names;
    for (const agent::ComponentConfig& each : *components) {
        Require(!each.name.empty() && each.name.size() <= 64 && each.name[0] != '.', "a name is plain");
        Require(each.name.find('/') == std::string::npos && names.insert(each.name).second, "a name is its own");
        Require(each.command.empty() || each.command[0][0] == '/', "a program is named by its absolute path");
        for (const std::string& argument : each.command) {
            Require(argument.find('\0') == std::string::npos, "an argument reaches the program whole");
        }
        const auto load = agent::ParseLoadProfile(agent::FormatLoadProfile(each.load));
        Require(load && load->size() == each.load.size(), "a load says the same again");
    }
}

void CheckLoad(const std::string& text) {
    const auto load = agent::ParseLoadProfile(text);
    if (IsRefused(load)) return;
    for (const agent::LoadItem& item : *load) Require(item.amount >= 1 && item.amount <= 86400, "an amount is sane");
    const std::string written = agent::FormatLoadProfile(*load);
    const auto again = agent::ParseLoadProfile(written);
    Require(again && agent::FormatLoadProfile(*again) == written, "a load says the same again");
}

void CheckBudget(const std::string& text) {
    constexpr int64_t kNow = 100000;
    agent::RestartBudget budget("boot");
    if (!budget.Parse(text)) return;
    const std::string written = budget.Format();
    agent::RestartBudget again("boot");
    Require(again.Parse(written) && again.Format() == written, "a budget says the same again");
    const int64_t next = again.NoteDeath("one", kNow - 10, kNow, text);
    Require(next > kNow && next <= kNow + agent::kBudgetWindowSeconds, "nobody waits for longer than the window");
    Require(again.RecentRestarts("one", kNow) >= 1 && again.LastReason("one") == text, "a death is noted");
    agent::RestartBudget other("another");
    Require(other.Parse(written) && other.RecentRestarts("one", kNow) == 0, "another boot's times are not taken");
}

void CheckMark(const std::string& text) {
    const auto mark = agent::ParseRunMark(text);
    const auto note = agent::ParseEndNote(text);
    if (note) {
        const auto again = agent::ParseEndNote(agent::FormatEndNote(*note));
        Require(again && agent::FormatEndNote(*again) == agent::FormatEndNote(*note), "a note says the same again");
        Require(fuzzing::IsOnOneLine(note->result + note->code + note->status), "a note's words are plain");
    }
    if (IsRefused(mark)) return;
    const auto again = agent::ParseRunMark(agent::FormatRunMark(*mark));
    Require(again && agent::FormatRunMark(*again) == agent::FormatRunMark(*mark), "a mark says the same again");
    const std::optional<agent::EndNote> noted = note ? std::optional<agent::EndNote>(*note) : std::nullopt;
    for (const char* kill : {"", "Killed process 1 (x)"}) {
        const agent::UncleanStop stop = agent::JudgeUncleanStop(*mark, "boot", noted, {"", kill});
        Require(!stop.known.empty(), "something is known");
        Require(fuzzing::IsOnOneLine(agent::Printable(agent::DescribeUncleanStop(*mark, stop))), "it is told");
        Json::Value body;
        Require(Json::Reader().parse(agent::FormatUncleanStop(*mark, stop, 1), body), "its message is JSON");
    }
}

void CheckCarried(const std::string& text) {
    const auto carried = zel::cgroup::ParseOomRecord(text, "boot");
    for (const zel::cgroup::OomCarried& each : carried) {
        Require(each.kills >= 0 && each.ooms >= 0 && each.groupKills >= 0, "counts are none or more");
    }
    const std::string written = zel::cgroup::FormatOomRecord("boot", carried);
    Require(zel::cgroup::ParseOomRecord(written, "other").empty(), "another boot's counts are not taken");
    const auto again = zel::cgroup::ParseOomRecord(written, "boot");
    Require(zel::cgroup::FormatOomRecord("boot", again) == written, "counts say the same again");
}

void CheckEvent(const std::string& text) {
    agent::TailEvent event;
    event.body = text;
    event.type = text.substr(0, 8);
    event.time = static_cast<long long>(uint64_t{text.size()} << (text.size() % 63));
    Require(fuzzing::IsOnOneLine(agent::Printable(agent::DescribeEvent(event))), "an event is told on one line");
}

void CheckBeat(const std::string& text) {
    int64_t silent = -1;
    const bool beat = agent::ParseBeat(text, silent);
    Require(beat ? silent >= 0 : silent == -1, "silence is not negative, and stays where there is no beat");
    if (beat) {
        int64_t again = -1;
        Require(agent::ParseBeat(agent::FormatBeat(silent), again) && again == silent, "a beat says the same again");
    }
    agent::ComponentPulses pulses;
    pulses.Listen();
    Require(pulses.Note(7, text, 1000) == beat, "a beat is noted");
    std::vector<agent::ComponentStatus> components(1);
    components[0].pid = 7;
    components[0].state = agent::ComponentState::kRunning;
    for (const int64_t now : {1000, 1005, 1010}) Require(pulses.Judge(components, now) >= now, "it is judged later");
    Require(components[0].hungSeconds >= 0, "nobody hangs for less than no time");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static constexpr void (*kChecks[])(const std::string&) = {CheckConfig, CheckComponents, CheckLoad,  CheckBudget,
                                                              CheckMark,   CheckCarried,    CheckEvent, CheckBeat};
    if (size == 0) return 0;
    kChecks[data[0] % std::size(kChecks)](std::string(fuzzing::TextOf(data + 1, size - 1)));
    support::TakeLogLines();
    return 0;
}
