// What comes to the console's mode of the relay: requests by lines, texts of the broker, a file of credentials. Nothing
// is kept beyond its bound, what is taken is within the rules, and each answer is one line.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "console/ConsoleLines.h"
#include "console/ConsoleOptions.h"
#include "console/StreamTexts.h"

namespace {

void Check(bool holds) {
    if (!holds) abort();
}

void CheckLine(const std::string& line) {
    Check(!line.empty() && line.find('\n') == line.size() - 1);
}

void TryRequest(const std::string& text) {
    const fleet::ParsedRequest parsed = fleet::ParseConsoleRequest(text);
    Check(parsed.id >= 0);
    if (!parsed.request) {
        CheckLine(fleet::ErrorAnswer(parsed.id, parsed.request.GetError().Text()));
        return;
    }
    const fleet::ConsoleRequest& request = *parsed.request;
    Check(request.id == parsed.id && request.id > 0);
    Check(request.key.empty() || fleet::IsKey(request.key));
    Check(request.bucket.empty() || request.bucket == "state" || request.bucket == "config");
    Check(request.subject.empty() || request.subject.compare(0, 11, "zel.events.") == 0);
    Check(request.subject.find_first_of(" \t\r\n") == std::string::npos);
    Check(!request.since || (*request.since >= 0 && !fleet::FormatTime(*request.since).empty()));
}

void TryTexts(const std::string& text) {
    const auto report = fleet::ParseStreamReport(text);
    if (report) CheckLine(fleet::StreamAnswer(1, *report));
    const auto made = fleet::ParseMadeConsumer(text);
    Check(!made || !made->name.empty());
    const auto delivery = fleet::ParseDelivery(text);
    Check(!delivery || delivery->timeNs >= 0);
    const auto time = fleet::ParseTime(text);
    Check(!time || std::isfinite(*time));
    const auto name = fleet::NameInCredentials(text);
    Check(!name || name->find_first_of(".> *\n") == std::string::npos);
    CheckLine(fleet::KeyItem(1, {text, 1, 1, text, false}));
    CheckLine(fleet::EventLine(1, {text, 1, 1, text, 1, text}));
}

}  // namespace

/// The first byte says in which pieces the rest comes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t piece = 1 + data[0] % 61;
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    fleet::RequestLines lines;
    std::vector<fleet::RequestLines::Line> come;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        lines.Add(std::string_view(bytes).substr(at, piece), come);
        Check(lines.Kept() <= fleet::kMostRequestBytes);
    }
    lines.End(come);
    for (const auto& line : come) TryRequest(line.text);
    TryTexts(bytes);
    return 0;
}
