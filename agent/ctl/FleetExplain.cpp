// Finding the event in the stream; what only its host knows is named.
#include "FleetExplain.h"

#include <cstdio>
#include <vector>

#include "CtlExit.h"
#include "EventWords.h"
#include "FleetEvents.h"
#include "FleetReading.h"
#include "Printable.h"
#include "Story.h"
#include "View.h"

namespace agent {

namespace {

constexpr size_t kMostFound = 10;
constexpr size_t kWholeIdBytes = 18;  // sixteen digits of the spool, a dash and a number

bool IsWholeId(const std::string& which) {
    const size_t slash = which.rfind('/');
    return slash != std::string::npos && which.size() - slash - 1 >= kWholeIdBytes;
}

}  // namespace

int ExplainFleetEvent(FleetLink& link, const std::string& which, bool json) {
    FleetEventQuery query;
    const size_t slash = which.rfind('/');
    if (slash != std::string::npos) query.host = which.substr(0, slash);
    FleetEventReader reader;
    std::vector<FleetEvent> found;
    const base::Status read = ReadFleetEvents(link, query, reader, [&](const FleetEvent& event) {
        if (MeansEvent(which, event)) found.push_back(event);
        return found.size() < (IsWholeId(which) ? 1 : kMostFound);
    });
    if (!read) return FleetFail(kUnreachable, read.GetError().Text());
    if (found.empty()) {
        return FleetFail(kRefused, "there is no event " + which +
                                       " in the stream; tervanectl fleet events --since 7d lists them, and older ones "
                                       "are with their host: tervanectl explain");
    }
    if (found.size() > 1) {
        std::string names;
        for (const FleetEvent& event : found) names += " " + event.host + "/" + ShortText(event.event.id, 64);
        return FleetFail(kRefused, which + " may be any of" + names + ": name the whole id");
    }
    const FleetEvent& event = found[0];
    ConfigPicture elsewhere;
    elsewhere.isElsewhere = true;
    Story story = TellStory(event.event, Json::Value(), elsewhere, "the application directory of " + event.host);
    story.title = event.host + ": " + story.title;
    story.todo.push_back("only " + event.host +
                         " knows which file gave its limits, and has the record with threads and stack where one was "
                         "written; there: tervanectl explain " +
                         ShortText(event.event.id, 64));
    if (!json) {
        fputs(WordStory(story).c_str(), stdout);
        return kOk;
    }
    Json::Value view = NewView("fleet-explain");
    view["host"] = event.host;
    view["id"] = event.event.id;
    view["time"] = Json::Int64(event.event.time);
    view["type"] = NameOf(WordEvent(event.event).kind);
    AddStory(story, view);
    fputs(ViewText(view).c_str(), stdout);
    return kOk;
}

}  // namespace agent
