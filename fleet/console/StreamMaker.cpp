// One stream after the other: what there is, then what is to be.
#include "console/StreamMaker.h"

#include "console/StreamReader.h"

namespace fleet {
namespace {

constexpr char kApi[] = "$JS.API.STREAM.";

/// Returns: the broker's answer. Errors: why there is none.
base::Result<std::string> AskFor(NatsBroker& broker, const char* verb, FleetStream stream, const std::string& body) {
    std::string reply;
    const Answer answer = broker.Ask(std::string(kApi) + verb + "." + NameOf(stream), body, reply);
    if (answer.outcome == Answer::Outcome::kOk) return reply;
    return base::SentenceError(SentenceOf(answer), base::ErrorKind::kNoServer);
}

base::Status Do(NatsBroker& broker, const char* verb, FleetStream stream, const std::string& body) {
    const auto answer = AskFor(broker, verb, stream, body);
    return answer ? JudgeDone(*answer) : base::Status(answer.GetError());
}

base::Status SetUp(NatsBroker& broker, FleetStream stream, const SetupWish& wish, bool isCluster, SetupReport& report) {
    const auto answer = AskFor(broker, "INFO", stream, "");
    if (!answer) return answer.GetError();
    const auto found = JudgeStream(stream, wish, *answer);
    if (!found) return found.GetError();
    if (!found->exists) {
        const base::Status made = Do(broker, "CREATE", stream, MakeRequest(stream, wish, isCluster));
        if (made) report.state = SetupReport::State::kMade;
        return made;
    }
    report.differences = found->differences;
    if (found->differences.empty()) report.state = SetupReport::State::kRight;
    if (found->differences.empty()) return {};
    report.state = SetupReport::State::kDiffers;
    if (!wish.change || found->update.empty()) return {};
    const base::Status changed = Do(broker, "UPDATE", stream, found->update);
    if (changed) report.state = SetupReport::State::kChanged;
    return changed;
}

}  // namespace

base::Result<std::vector<SetupReport>> SetUpStreams(NatsBroker& broker, const SetupWish& wish) {
    if (!broker.IsConnected()) {
        return base::SentenceError("nothing was asked for: no connection to the broker: " + broker.WhyNot());
    }
    const base::Status judged = broker.Judge();
    if (!judged) return judged.GetError();
    const auto server = broker.Greeting();
    if (!server) return server.GetError();
    // A single node takes such a change of a stream that is there, and keeps one copy all the same.
    if (wish.replicas > 1 && server->cluster.empty()) {
        return base::SentenceError("a broker that is no cluster has one copy of each stream: ask for 1",
                                   base::ErrorKind::kRefused);
    }
    std::vector<SetupReport> reports;
    std::string silence;
    for (const FleetStream stream : kFleetStreams) {
        SetupReport report;
        report.stream = NameOf(stream);
        const base::Status done =
            silence.empty()
                ? SetUp(broker, stream, wish, !server->cluster.empty(), report)
                : base::Status(base::SentenceError("nothing was asked of it, since the one before had no answer"));
        if (!done) report.error = done.GetError().Text();
        if (!done && done.GetError().kind == base::ErrorKind::kNoServer) silence = report.error;
        reports.push_back(report);
    }
    return reports;
}

}  // namespace fleet
