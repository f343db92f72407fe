// Colours and JSON of the views.
#include "View.h"
#include "JsonText.h"

#include <json/writer.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace agent {

namespace {

constexpr const char* kSeverityNames[] = {"ok", "warning", "problem"};  // in the order of Severity
constexpr char kNoColourVariable[] = "NO_COLOR";
constexpr char kTerminalVariable[] = "TERM";

const char* CodeOf(LineKind kind) {
    switch (kind) {
        case LineKind::kTitle: return "\033[1m";
        case LineKind::kTableHead: return "\033[2m";
        case LineKind::kNotice: return "\033[33m";
        case LineKind::kAlarm: return "\033[31m";
        case LineKind::kPlain: break;
    }
    return "";
}

}  // namespace

bool HasColours() {
    const char* const no = getenv(kNoColourVariable);
    const char* const terminal = getenv(kTerminalVariable);
    if (no != nullptr && *no != '\0') return false;
    return isatty(STDOUT_FILENO) != 0 && terminal != nullptr && strcmp(terminal, "dumb") != 0;
}

std::string Painted(const std::string& text, LineKind kind) {
    if (kind == LineKind::kPlain || text.empty() || !HasColours()) return text;
    return CodeOf(kind) + text + "\033[0m";
}

std::string PaintLines(const std::vector<TextLine>& lines) {
    std::string text;
    for (const TextLine& line : lines) text += Painted(line.text, line.kind) + "\n";
    return text;
}

Json::Value NewView(const char* name) {
    Json::Value view(Json::objectValue);
    view["schema"] = std::string("tervanectl.") + name;
    view["version"] = kViewVersion;
    return view;
}

std::string ViewText(const Json::Value& view, bool oneLine) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = oneLine ? "" : "  ";
    builder["emitUTF8"] = true;
    return EscapeControls(Json::writeString(builder, view)) + "\n";
}

Json::Value JsonList(const std::vector<std::string>& texts) {
    Json::Value list(Json::arrayValue);
    for (const std::string& text : texts) list.append(text);
    return list;
}

const char* NameOf(Severity severity) {
    return kSeverityNames[static_cast<size_t>(severity)];
}

Json::Value FindingsJson(const std::vector<DoctorFinding>& findings) {
    Json::Value list(Json::arrayValue);
    for (const DoctorFinding& finding : findings) {
        Json::Value& object = list.append(Json::Value(Json::objectValue));
        object["severity"] = NameOf(finding.severity);
        object["what"] = finding.what;
        object["evidence"] = finding.evidence;
        object["remedy"] = finding.remedy;
    }
    return list;
}

}  // namespace agent
