// The console's protocol from the console's side: what another process, or another version, may answer. Whatever comes
// is refused or is a status that says the same when it is written and read again, and that is shown without a byte that
// moves the terminal's cursor.
#include <string>
#include <vector>

#include "ConsoleProtocol.h"
#include "FuzzSupport.h"
#include "Printable.h"
#include "StatusJson.h"
#include "StatusReport.h"
#include "StatusText.h"
#include "TopHistory.h"

namespace {

using fuzzing::Require;

void CheckLines(const std::vector<agent::TextLine>& lines) {
    for (const agent::TextLine& line : lines) {
        Require(agent::Printable(line.text) == line.text, "a line is one line of whole characters");
    }
    for (const size_t columns : {20U, 80U}) {
        for (const agent::TextLine& line : agent::FoldLines(lines, columns)) {
            Require(fuzzing::IsOnOneLine(line.text), "a folded line is one line");
        }
    }
    Require(agent::JoinLines(lines).size() >= lines.size(), "every line has an end");
}

void CheckPictures(const agent::StatusReport& report) {
    agent::TopHistory history;
    history.Take(report, 0);
    agent::StatusReport later = report;
    for (zel::CgroupNodeStatus& node : later.tree.nodes) {
        if (node.cpu.used < INT64_MAX / 2) node.cpu.used += node.cpu.used / 2;
    }
    ++later.logCount;
    history.Take(later, 1000000);
    Require(history.NewLines().size() <= report.logLines.size(), "no line is new that is not there");
    agent::PictureOptions options;
    for (const agent::SortOrder order : {agent::SortOrder::kTree, agent::SortOrder::kThrottling}) {
        options.order = order;
        options.wide = !options.wide;
        options.allComponents = !options.wide;
        CheckLines(agent::MakePicture(report, history.Shares(), options));
    }
    CheckLines(agent::MakeSummary(report));
    Require(fuzzing::IsOnOneLine(agent::DescribeMode(report)), "the mode is said on one line");
    Require((agent::ModeInForce(report) & ~0xf) == 0, "only known bits are in force");
}

void CheckStatus(const std::string& text) {
    const base::Result<agent::StatusReport> report = agent::ParseStatusJson(text);
    if (!report) return Require(!report.GetError().Text().empty(), "a refusal says why");
    const std::string written = agent::FormatStatusJson(*report);
    const base::Result<agent::StatusReport> again = agent::ParseStatusJson(written);
    Require(again.Ok(), "what is written can be read");
    Require(agent::FormatStatusJson(*again) == written, "what is read says the same");
    CheckPictures(*again);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(fuzzing::TextOf(data, size));
    const std::string shown = agent::Printable(text);
    Require(fuzzing::IsOnOneLine(shown) && agent::Printable(shown) == shown, "what is printable stays as it is");
    CheckStatus(text);
    if (const base::Result<agent::Answer> answer = agent::ParseAnswer(text)) {
        Require(agent::FormatAnswer(*answer).size() <= text.size(), "an answer is whole");
        CheckStatus(answer->body);
    }
    for (const bool ok : {false, true}) {
        const base::Result<agent::Answer> back = agent::ParseAnswer(agent::FormatAnswer({ok, text}));
        Require(back && back->ok == ok && back->body == text, "an answer comes back as it was sent");
    }
    return 0;
}
