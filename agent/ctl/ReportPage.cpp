// Charts and lists of the report.
#include "ReportPage.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <map>

#include "Advice.h"
#include "ReportParts.h"
#include "Text.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr int kColumns = 360;  ///< of a chart: more than a phone has, and a minute each in six hours
constexpr int kHeight = 100;
constexpr int kStripPlaces = 32;     ///< marks closer than that share a place
constexpr size_t kShownGroups = 40;  ///< charts
constexpr size_t kShownMarks = 200;  ///< lines of the list
constexpr size_t kShownLines = 60;   ///< of marks in one chart
constexpr size_t kShownProblems = 10;
constexpr size_t kShownText = 250;  ///< bytes of one mark or finding
constexpr size_t kShownObserved = 16384;
constexpr double kPercent = 100;
constexpr double kKbPerMb = 1024;

int ColumnOf(const ReportAxis& axis, int64_t time) {
    return std::min(kColumns - 1, static_cast<int>(axis.At(time) * kColumns));
}

std::string Percent(double hundredths) {
    if (hundredths < 0.5) return "0 %";
    return Text(hundredths < 1000 ? "%.2f %%" : "%.0f %%", hundredths / kPercent);
}

std::string Megabytes(double kb) {
    return kb < 10 * kKbPerMb ? Text("%.1f MB", kb / kKbPerMb) : Text("%.0f MB", kb / kKbPerMb);
}

/// One span of time with one figure, and with the limit that held then; negative: none.
struct Piece {
    int64_t from = 0;
    int64_t to = 0;
    int64_t value = -1;
    int64_t limit = -1;
};

struct Chart {
    const char* title;
    const char* style;
    std::string (*format)(double);
    double unit;  ///< of the figures, in which the axis has a round end
    bool low = false;
    int64_t scale = 0;  ///< top of the axis; 0: by what is shown
};

/// Returns: a round number of units with a little room above the value.
int64_t RoundTop(int64_t value, double unit) {
    constexpr std::array<double, 10> kRound = {1, 1.2, 1.5, 2, 2.5, 3, 4, 5, 6, 8};
    const double wanted = static_cast<double>(std::max<int64_t>(1, value)) * 1.04 / unit;
    for (double power = 0.01;; power *= 10) {
        for (const double each : kRound) {
            if (each * power >= wanted) return std::max<int64_t>(1, std::llround(each * power * unit));
        }
    }
}

/// The highest figure of each column; negative: none.
std::vector<int64_t> Columns(const std::vector<Piece>& pieces, const ReportAxis& axis, int64_t Piece::*what) {
    std::vector<int64_t> columns(kColumns, -1);
    for (const Piece& piece : pieces) {
        const int last = ColumnOf(axis, piece.to);
        // A figure belongs to the time behind the row before it.
        const int first = piece.from == piece.to ? last : std::min(last, ColumnOf(axis, piece.from) + 1);
        for (int column = first; column <= last; ++column) {
            int64_t& place = columns[static_cast<size_t>(column)];
            place = std::max(place, piece.*what);
        }
    }
    return columns;
}

/// The outline of what is known, in pieces where it is not; closed to the ground for a surface.
std::string Outline(const std::vector<int64_t>& columns, int64_t top, bool closed) {
    const auto y = [top](int64_t value) {
        return kHeight - static_cast<int>(std::min(value, top) * kHeight / std::max<int64_t>(1, top));
    };
    std::string path;
    for (size_t i = 0; i < columns.size();) {
        if (columns[i] < 0) {
            ++i;
            continue;
        }
        size_t end = i;
        while (end < columns.size() && columns[end] >= 0) ++end;
        path += closed ? Text("M%zu %dV%d", i, kHeight, y(columns[i])) : Text("M%zu %d", i, y(columns[i]));
        for (size_t at = i; at < end; ++at) {
            // Steps: level until the next column, and what does not change is not said.
            if (at > i && columns[at] != columns[at - 1]) path += Text("H%zuV%d", at, y(columns[at]));
        }
        path += Text("H%zu", end);
        if (closed) path += Text("V%dZ", kHeight);
        i = end;
    }
    return path;
}

std::string Path(const char* style, const std::string& outline) {
    return outline.empty() ? "" : Text("<path class=\"%s\" d=\"", style) + outline + "\"/>";
}

std::string MarkLines(const std::vector<const Mark*>& marks, const ReportAxis& axis) {
    std::map<std::pair<int, MarkKind>, int> places;
    for (const Mark* mark : marks) ++places[{ColumnOf(axis, mark->time), mark->kind}];
    std::string lines;
    size_t shown = 0;
    for (const auto& place : places) {
        if (++shown > kShownLines) break;
        lines +=
            Text("<path class=\"mk %s\" d=\"M%d 0V%d\"/>", LetterOf(place.first.second), place.first.first, kHeight);
    }
    return lines;
}

std::string DrawChart(const Chart& chart, const std::vector<Piece>& pieces, const ReportAxis& axis,
                      const std::string& lines) {
    int64_t peak = -1;
    int64_t limit = -1;
    for (const Piece& piece : pieces) {
        peak = std::max(peak, piece.value);
        limit = std::max(limit, piece.limit);
    }
    const int64_t highest = std::max(peak, limit);
    const int64_t top = chart.scale != 0 ? chart.scale : RoundTop(highest, chart.unit);
    const std::vector<int64_t> values = Columns(pieces, axis, &Piece::value);
    std::string html = "<div class=\"head\"><span>" + std::string(chart.title) + "</span><span>";
    html += peak < 0 ? "nothing known" : "peak " + chart.format(static_cast<double>(peak));
    if (limit > 0) {
        const int64_t last = pieces.back().limit;
        html += last < 0 ? std::string(", no limit at the end") : ", limit " + chart.format(static_cast<double>(last));
    }
    html += "</span></div><div class=\"row\"><div class=\"y\"><span>" + chart.format(static_cast<double>(top)) +
            "</span><span>0</span></div><div class=\"plot" + (chart.low ? " low" : "") + "\">" +
            Text("<svg viewBox=\"0 0 %d %d\" preserveAspectRatio=\"none\" aria-hidden=\"true\">", kColumns, kHeight) +
            Text("<path class=\"g\" d=\"M0 %dH%d\"/>", kHeight / 2, kColumns);
    html += Path((std::string(chart.style) + "-f").c_str(), Outline(values, top, true));
    html += Path(chart.style, Outline(values, top, false));
    if (limit > 0) html += Path("lim", Outline(Columns(pieces, axis, &Piece::limit), top, false));
    return html + lines + "</svg></div></div>";
}

std::vector<Piece> PiecesOf(const GroupUse& group, int64_t UsePoint::*value, int UsePoint::*limit) {
    std::vector<Piece> pieces;
    for (const UsePoint& point : group.points) {
        const int64_t held = limit == nullptr || point.*limit == 0 ? -1 : point.*limit;
        pieces.push_back({point.from, point.to, point.*value, held});
    }
    return pieces;
}

std::string DescribeHits(const GroupUse& group) {
    int64_t held = 0;
    int64_t observed = 0;
    for (const UsePoint& point : group.points) {
        ((point.observed & zel::kModeMemory) != 0 ? observed : held) += std::max<int64_t>(0, point.hits);
    }
    std::string html;
    if (held > 0)
        html =
            Text("<p class=\"small muted\">its memory limit was reached %lld times</p>", static_cast<long long>(held));
    if (observed > 0) {
        html += Text(
            "<p class=\"small muted\">%lld would have been killed for its memory limit while it was only "
            "observed</p>",
            static_cast<long long>(observed));
    }
    return html;
}

std::string DrawGroup(const GroupUse& group, const ReportFacts& facts, const ReportAxis& axis) {
    std::vector<const Mark*> marks;
    for (const Mark& mark : facts.marks) {
        if (Concerns(mark, group.name)) marks.push_back(&mark);
    }
    const std::string lines = MarkLines(marks, axis);
    std::string html = "<section class=\"card\"><h3>" +
                       (group.name.empty() ? std::string("whole agent") : EscapeHtml(group.name)) + "</h3>";
    html += DrawChart({"CPU, of one processor", "cpu", Percent, kPercent},
                      PiecesOf(group, &UsePoint::cpu100Times, &UsePoint::cpuLimit100Times), axis, lines);
    html += DrawChart({"periods held back", "thr", Percent, kPercent, true, 10000},
                      PiecesOf(group, &UsePoint::throttled100Times, nullptr), axis, lines);
    html += DrawChart({"memory", "mem", Megabytes, kKbPerMb},
                      PiecesOf(group, &UsePoint::memoryKb, &UsePoint::memoryLimitKb), axis, lines);
    html += DrawTimes(axis);
    return html + DescribeHits(group) + "</section>";
}

std::string DrawPressure(const ReportFacts& facts, const ReportAxis& axis) {
    if (facts.day.pressure.empty()) return "";
    const auto pieces = [&facts](int64_t PressurePoint::*kind) {
        std::vector<Piece> out;
        for (const PressurePoint& point : facts.day.pressure) out.push_back({point.from, point.to, point.*kind, -1});
        return out;
    };
    std::string html =
        "<h2>Host pressure</h2><section class=\"card\"><p class=\"small muted\">share of the time in which some "
        "process "
        "waited for it</p>";
    html += DrawChart({"CPU", "cpu", Percent, kPercent, true, 10000}, pieces(&PressurePoint::cpu), axis, "");
    html += DrawChart({"memory", "mem", Percent, kPercent, true, 0}, pieces(&PressurePoint::memory), axis, "");
    html += DrawChart({"input and output", "thr", Percent, kPercent, true, 0}, pieces(&PressurePoint::io), axis, "");
    return html + DrawTimes(axis) + "</section>";
}

std::string Badge(MarkKind kind, const std::string& text, const std::string& more) {
    return Text("<i class=\"k %s\"", LetterOf(kind)) + more + ">" + text + "</i>";
}

std::string DrawStrip(const ReportFacts& facts, const ReportAxis& axis) {
    std::map<std::pair<int, MarkKind>, int> places;
    for (const Mark& mark : facts.marks) {
        ++places[{static_cast<int>(axis.At(mark.time) * (kStripPlaces - 1)), mark.kind}];
    }
    std::array<bool, kMarkKinds> seen{};
    for (const auto& place : places) seen[static_cast<size_t>(place.first.second)] = true;
    std::string html;
    // A line for each kind, so that no mark hides another one.
    for (size_t kind = 0; kind < kMarkKinds; ++kind) {
        if (!seen[kind]) continue;
        html += "<div class=\"row\"><div class=\"y\"></div><div class=\"strip\">";
        for (const auto& place : places) {
            if (static_cast<size_t>(place.first.second) != kind) continue;
            const std::string letter = LetterOf(place.first.second);
            html += Badge(place.first.second, place.second == 1 ? letter : letter + std::to_string(place.second),
                          Text(" style=\"left:%.1f%%\" title=\"%d: %s\"",
                               static_cast<double>(place.first.first) * kPercent / (kStripPlaces - 1), place.second,
                               NameOf(place.first.second)));
        }
        html += "</div></div>";
    }
    return html.empty() ? html : html + DrawTimes(axis);
}

std::string DrawMarks(const ReportFacts& facts, const ReportAxis& axis) {
    std::string html = "<h2>What happened</h2><section class=\"card\">";
    if (facts.marks.empty()) return html + "<p class=\"muted\">nothing that is told of</p></section>";
    html += DrawStrip(facts, axis) + "<p class=\"key\">";
    for (size_t kind = 0; kind < kMarkKinds; ++kind) {
        const auto each = static_cast<MarkKind>(kind);
        html += "<span>" + Badge(each, LetterOf(each), "") + " " + NameOf(each) + "</span>";
    }
    html += Text("</p><details%s><summary>one by one, newest first</summary><ul class=\"list\">",
                 facts.marks.size() <= 12 ? " open" : "");
    size_t shown = 0;
    for (auto mark = facts.marks.rbegin(); mark != facts.marks.rend() && shown < kShownMarks; ++mark, ++shown) {
        html += "<li><time>" + ReportClock(mark->time, "%d %b %H:%M:%S") + "</time>" +
                Badge(mark->kind, LetterOf(mark->kind), Text(" title=\"%s\"", NameOf(mark->kind))) + "<span>" +
                EscapeHtml(mark->text, kShownText) + "</span></li>";
    }
    html += "</ul>";
    if (facts.marks.size() > shown)
        html += Text("<p class=\"muted\">and %zu before these</p>", facts.marks.size() - shown);
    return html + "</details></section>";
}

std::string DrawFindings(const ReportFacts& facts) {
    size_t well = 0;
    for (const DoctorFinding& finding : facts.findings) well += finding.severity == Severity::kOk ? 1 : 0;
    return "<h2>Findings of the doctor</h2><section class=\"card\">" + DrawFindingList(facts.findings) +
           Text("<p class=\"ok\">%zu looked at and well</p></section>", well);
}

std::string DrawTiles(const ReportFacts& facts) {
    std::array<size_t, kMarkKinds> counts{};
    for (const Mark& mark : facts.marks) ++counts[static_cast<size_t>(mark.kind)];
    const auto count = [&counts](MarkKind kind) { return std::to_string(counts[static_cast<size_t>(kind)]); };
    size_t trouble = 0;
    for (const DoctorFinding& finding : facts.findings) trouble += finding.severity != Severity::kOk ? 1 : 0;
    return "<div class=\"tiles\">" + DrawTile(std::to_string(facts.day.groups.size()), "groups") +
           DrawTile(count(MarkKind::kOom), "out-of-memory events") + DrawTile(count(MarkKind::kKill), "self-kills") +
           (facts.day.observed != 0 || counts[static_cast<size_t>(MarkKind::kWouldKill)] > 0
                ? DrawTile(count(MarkKind::kWouldKill), "would have been killed")
                : "") +
           DrawTile(count(MarkKind::kDrift), "drifts of a limit") +
           DrawTile(count(MarkKind::kConfig), "changes of limits") +
           DrawTile(std::to_string(trouble), "findings to act on") + "</div>";
}

std::string DrawGroups(const ReportFacts& facts, const ReportAxis& axis) {
    std::string html = "<h2>Groups against their limits</h2>";
    if (facts.day.groups.empty()) {
        return html +
               "<section class=\"card\"><p>No minute of any group is known. Groups are recorded once a minute while "
               "the main process keeps a unified tree (resource_limit_mode has bit 8).</p></section>";
    }
    const std::string observed = ObservedText(facts.day);
    if (!observed.empty())
        html += "<section class=\"card\"><pre>" + EscapeHtml(observed, kShownObserved) + "</pre></section>";
    const std::string limit =
        observed.empty() ? " limit in force"
        : facts.day.observedRows == facts.day.rows
            ? std::string(" limit, observed only")
            : Text(" limit, in %zu of %zu minutes observed only", facts.day.observedRows, facts.day.rows);
    html +=
        "<p class=\"key\"><span><svg viewBox=\"0 0 20 10\" aria-hidden=\"true\"><path class=\"lim\" d=\"M0 "
        "5H20\"/></svg>" +
        limit +
        "</span><span>each point is the highest minute in it</span><span>upright lines: the marks "
        "above</span></p><div class=\"grid\">";
    for (size_t i = 0; i < facts.day.groups.size() && i < kShownGroups; ++i) {
        html += DrawGroup(facts.day.groups[i], facts, axis);
    }
    html += "</div>";
    const size_t hidden = facts.day.groups.size() > kShownGroups ? facts.day.groups.size() - kShownGroups : 0;
    if (hidden + static_cast<size_t>(facts.day.leftOut) > 0) {
        html += Text("<p class=\"muted\">%zu more groups are not shown, %lld were not recorded</p>", hidden,
                     static_cast<long long>(facts.day.leftOut));
    }
    return html;
}

}  // namespace

std::string MakeReportPage(const ReportFacts& facts) {
    const bool known = facts.day.from != 0 && facts.day.to > facts.day.from;
    // A young agent's hour fills the page; the rest of the day, of which nothing is known, does not.
    ReportAxis axis{known ? facts.day.from : facts.since, known ? facts.day.to : facts.now};
    for (const Mark& mark : facts.marks) {
        axis.from = std::min(axis.from, mark.time);
        axis.to = std::max(axis.to, mark.time);  // none is later than tomorrow
    }
    std::string html =
        BeginPage("Resource report of " + EscapeHtml(facts.host, 100)) + "<h1>Resources of " +
        EscapeHtml(facts.host, 100) + "</h1><p class=\"muted\">" + ReportClock(axis.from, "%a %d %b %Y %H:%M") +
        " to " + ReportClock(axis.to, "%a %d %b %Y %H:%M %Z") + "</p><p class=\"muted small\">agent in " +
        EscapeHtml(facts.directory) + ", tervanectl " + EscapeHtml(facts.version, 40) + ", made " +
        ReportClock(facts.now, "%d %b %Y %H:%M:%S") + Text(" from %zu recorded minutes</p>", facts.day.rows);
    for (size_t i = 0; i < facts.day.problems.size() && i < kShownProblems; ++i) {
        html += "<p class=\"warning\">" + EscapeHtml(facts.day.problems[i]) + "</p>";
    }
    html += DrawTiles(facts) + DrawMarks(facts, axis) + DrawGroups(facts, axis) + DrawPressure(facts, axis) +
            DrawFindings(facts);
    return html + EndPage();
}

}  // namespace agent
