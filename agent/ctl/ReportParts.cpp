// Frame, text, axis and lists that every page has.
#include "ReportParts.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "ReportStyle.h"
#include "Text.h"
#include "View.h"

namespace agent {

namespace {

constexpr size_t kShownFindings = 50;
constexpr size_t kShownText = 250;  ///< bytes of one text of a finding
constexpr double kPercent = 100;

/// Where a character of well-formed UTF-8 ends that begins there; the same place when there is none.
size_t EndOfCharacter(const std::string& text, size_t at) {
    const auto byte = [&text](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
    const auto follows = [&byte](size_t i) { return (byte(i) & 0xc0U) == 0x80U; };
    const unsigned first = byte(at);
    if (first < 0x80) return at + 1;
    if (first >= 0xc2 && first < 0xe0) return follows(at + 1) ? at + 2 : at;
    if (first >= 0xe0 && first < 0xf0) {
        const bool sound = follows(at + 1) && follows(at + 2) && !(first == 0xe0 && byte(at + 1) < 0xa0) &&
                           !(first == 0xed && byte(at + 1) >= 0xa0);
        return sound ? at + 3 : at;
    }
    if (first < 0xf0 || first > 0xf4) return at;
    const bool sound = follows(at + 1) && follows(at + 2) && follows(at + 3) &&
                       !(first == 0xf0 && byte(at + 1) < 0x90) && !(first == 0xf4 && byte(at + 1) >= 0x90);
    return sound ? at + 4 : at;
}

}  // namespace

std::string EscapeHtml(const std::string& text, size_t most) {
    std::string out;
    size_t at = 0;
    while (at < text.size() && at < most) {
        const size_t end = EndOfCharacter(text, at);
        const char c = text[at];
        if (end == at) {
            out += '?';
        } else if (c == '&') {
            out += "&amp;";
        } else if (c == '<') {
            out += "&lt;";
        } else if (c == '>') {
            out += "&gt;";
        } else if (c == '"') {
            out += "&quot;";
        } else if (c == '\'') {
            out += "&#39;";
        } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            out += c == '\n' || c == '\t' ? ' ' : '?';
        } else {
            out.append(text, at, end - at);
        }
        at = std::max(end, at + 1);
    }
    if (at < text.size()) out += "...";
    return out;
}

double ReportAxis::At(int64_t time) const {
    const double span = static_cast<double>(std::max<int64_t>(1, to - from));
    return std::clamp(static_cast<double>(time - from) / span, 0.0, 1.0);
}

std::string ReportClock(int64_t seconds, const char* format) {
    const time_t time = static_cast<time_t>(seconds);
    tm local{};
    std::array<char, 64> text{};
    if (localtime_r(&time, &local) != nullptr) strftime(text.data(), text.size(), format, &local);
    return text.data();
}

std::string BeginPage(const std::string& title, const char* moreStyle) {
    return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
           "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">"
           "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'\">"
           "<meta name=\"color-scheme\" content=\"light dark\"><title>" +
           title + "</title><style>" + kReportStyle + moreStyle + "</style></head><body><main>";
}

std::string EndPage() {
    return "</main></body></html>\n";
}

std::string DrawTimes(const ReportAxis& axis) {
    constexpr int64_t kSteps[] = {60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 14400, 21600, 43200, 86400};
    constexpr int64_t kMostLabels = 6;
    const int64_t span = axis.to - axis.from;
    int64_t step = kSteps[0];
    for (const int64_t each : kSteps) {
        step = each;
        if (span / each <= kMostLabels) break;
    }
    constexpr int64_t kDay = 86400;
    if (span / step > kMostLabels) step = (span / kMostLabels + kDay - 1) / kDay * kDay;
    const time_t begin = static_cast<time_t>(axis.from);
    tm local{};
    localtime_r(&begin, &local);
    const int64_t shift = local.tm_gmtoff;
    std::string html = "<div class=\"row\"><span></span><div class=\"x\">";
    for (int64_t at = (axis.from + shift + step - 1) / step * step - shift; at <= axis.to; at += step) {
        const double place = axis.At(at) * kPercent;
        if (place < 3 || place > 97) continue;  // half of it would be cut
        html +=
            Text("<span style=\"left:%.2f%%\">", place) + ReportClock(at, step >= kDay ? "%d %b" : "%H:%M") + "</span>";
    }
    return html + "</div></div>";
}

std::string DrawTile(const std::string& figure, const std::string& what) {
    return "<div class=\"card\"><b>" + figure + "</b><span class=\"small muted\">" + what + "</span></div>";
}

std::string DrawFindingList(const std::vector<DoctorFinding>& findings) {
    std::vector<const DoctorFinding*> order;
    for (const DoctorFinding& finding : findings) {
        if (finding.severity != Severity::kOk) order.push_back(&finding);
    }
    std::stable_sort(order.begin(), order.end(),
                     [](const DoctorFinding* a, const DoctorFinding* b) { return a->severity > b->severity; });
    std::string html = "<ul class=\"list find\">";
    for (size_t i = 0; i < order.size() && i < kShownFindings; ++i) {
        const DoctorFinding& finding = *order[i];
        const char* name = NameOf(finding.severity);
        html += Text("<li><span class=\"tag %s\">%s</span><span>", name, name) + EscapeHtml(finding.what, kShownText) +
                "</span>";
        if (!finding.evidence.empty())
            html += "<span class=\"do\">seen: " + EscapeHtml(finding.evidence, kShownText) + "</span>";
        if (!finding.remedy.empty())
            html += "<span class=\"do\">do: " + EscapeHtml(finding.remedy, kShownText) + "</span>";
        html += "</li>";
    }
    html += "</ul>";
    if (order.size() > kShownFindings)
        html += Text("<p class=\"muted\">and %zu more</p>", order.size() - kShownFindings);
    return html;
}

}  // namespace agent
