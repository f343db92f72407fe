// The views of a running process.
#include "ShowStatus.h"

#include <json/json.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "AskAgent.h"
#include "CtlExit.h"
#include "Doctor.h"
#include "Health.h"
#include "HumanText.h"
#include "JsonText.h"
#include "Printable.h"
#include "StatusText.h"
#include "View.h"

namespace agent {

namespace {

std::string InWords(const StatusReport& report, const std::vector<Trouble>& found) {
    PictureOptions options;
    options.allComponents = true;
    std::vector<TextLine> lines = MakePicture(report, {}, options);
    lines.push_back({});
    if (found.empty()) lines.push_back({"healthy"});
    for (const Trouble& trouble : found) lines.push_back({"degraded  " + trouble.what, LineKind::kAlarm});
    return PaintLines(lines);
}

Json::Value TroubleJson(const std::vector<Trouble>& found) {
    Json::Value list(Json::arrayValue);
    for (const Trouble& trouble : found) {
        Json::Value& object = list.append(Json::Value(Json::objectValue));
        object["what"] = trouble.what;
        object["remedy"] = trouble.remedy;
    }
    return list;
}

/// The process's own members, and the verdict.
Json::Value StatusView(const std::string& body, const std::vector<Trouble>& found) {
    Json::Value view = NewView("status");
    const base::Result<Json::Value> status = ParseJson(body);
    if (status && status->isObject()) {
        for (const std::string& name : status->getMemberNames()) {
            if (!view.isMember(name)) view[name] = (*status)[name];
        }
    }
    view["healthy"] = found.empty();
    view["trouble"] = TroubleJson(found);
    return view;
}

int ShowOnce(const StatusOptions& options, bool oneLine) {
    const base::Result<Answer> answer = AskAgent(options.appDir, options.process, "status");
    const base::Result<StatusReport> report = ReadStatus(answer);
    if (!report) {
        fprintf(stderr, "tervanectl: %s\n", report.GetError().Text().c_str());
        return kUnreachable;
    }
    const std::vector<Trouble> found = FindTrouble(*report);
    const std::string text =
        options.json ? ViewText(StatusView(answer->body, found), oneLine) : InWords(*report, found);
    fputs(text.c_str(), stdout);
    return found.empty() ? kOk : kDegraded;
}

}  // namespace

int RunStatus(const StatusOptions& options) {
    if (!options.watch) return ShowOnce(options, false);
    const bool page = !options.json && isatty(STDOUT_FILENO) != 0;
    int code = kOk;
    while (true) {
        if (page) fputs("\033[H\033[2J", stdout);
        if (!options.json) printf("%s\n", Painted(ClockText(time(nullptr)), LineKind::kTableHead).c_str());
        code = ShowOnce(options, true);
        if (!options.json && !page) printf("\n");
        // An agent that is away may come back: only the reader's end is the end.
        if (fflush(stdout) != 0) return code;
        sleep(options.every);
    }
}

int RunCheck(const StatusOptions& options) {
    const base::Result<StatusReport> report = ReadStatus(AskAgent(options.appDir, options.process, "status"));
    const std::vector<Trouble> found = report ? FindTrouble(*report) : std::vector<Trouble>();
    const std::string line =
        report ? HealthLine(*report) : "UNREACHABLE: " + options.process + ", " + report.GetError().Text();
    if (options.json) {
        Json::Value view = NewView("check");
        view["process"] = options.process;
        view["state"] = line.substr(0, line.find(':'));
        view["line"] = line;
        view["trouble"] = TroubleJson(found);
        fputs(ViewText(view).c_str(), stdout);
    } else {
        printf("%s\n", line.c_str());
    }
    return !report ? kUnreachable : found.empty() ? kOk : kDegraded;
}

int RunDoctor(const StatusOptions& options) {
    const Diagnosis diagnosis = Diagnose(options.appDir);
    if (!options.json) {
        std::string text;
        for (const DoctorFinding& finding : diagnosis.findings) {
            std::string lines = Diagnosis{{finding}}.Text();
            const size_t first = lines.find('\n');
            const bool well = finding.severity == Severity::kOk;
            text += Painted(lines.substr(0, first), well ? LineKind::kPlain : LineKind::kAlarm) + lines.substr(first);
        }
        fputs(text.c_str(), stdout);
        return static_cast<int>(diagnosis.Worst());
    }
    Json::Value view = NewView("doctor");
    view["worst"] = NameOf(diagnosis.Worst());
    view["findings"] = FindingsJson(diagnosis.findings);
    fputs(ViewText(view).c_str(), stdout);
    return static_cast<int>(diagnosis.Worst());
}

int RunRequest(const StatusOptions& options, const std::string& request) {
    const base::Result<Answer> answer = AskAgent(options.appDir, options.process, request);
    if (!answer) {
        fprintf(stderr, "tervanectl: %s\n", answer.GetError().Text().c_str());
        return kUnreachable;
    }
    if (!options.json) {
        fputs(answer->body.c_str(), answer->ok ? stdout : stderr);
        return answer->ok ? kOk : kRefused;
    }
    Json::Value view = NewView(request.c_str());
    view["process"] = options.process;
    view["accepted"] = answer->ok;
    const base::Result<Json::Value> values = request == "statistics" ? ParseJson(answer->body) : Json::Value();
    if (values && values->isObject())
        view["values"] = *values;
    else
        view["text"] = answer->body;
    fputs(ViewText(view).c_str(), stdout);
    return answer->ok ? kOk : kRefused;
}

}  // namespace agent
