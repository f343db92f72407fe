// Sections of the fleet's page, from above to below.
#include "FleetReportPage.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <tuple>

#include "HumanText.h"
#include "ReportParts.h"
#include "Text.h"

namespace agent {

namespace {

constexpr char kFleetStyle[] = R"css(
:root{--worse:#7a1022;--silent:#0e7c95;--late:#8a7f3c;--held:#e08a1e}
@media(prefers-color-scheme:dark){:root{--worse:#ffb3a7;--silent:#58c6e4;--late:#a8b06a;--held:#ffd166}}
.R{--c:var(--worse)}.T{--c:var(--held)}.S{--c:var(--silent)}.L{--c:var(--late)}
.heat{border-left:1px solid var(--line);border-bottom:1px solid var(--line);min-width:0}
.heat svg{display:block;width:100%;height:1.35rem;overflow:visible}.heat rect{fill:var(--c)}
.heat svg path.mk{stroke-dasharray:2 2}
.row .n{display:flex;align-items:center;justify-content:flex-end;gap:.3rem;font-size:.75rem;color:var(--muted);
font-variant-numeric:tabular-nums}
.over .head{margin-top:.4rem}.over .head span{color:var(--text)}.head span{overflow-wrap:anywhere;min-width:0}
.bar{height:.45rem;border-radius:.25rem;background:var(--line);margin:.25rem 0 .1rem;overflow:hidden}
.bar i{display:block;height:100%;background:var(--c,var(--cpu));border-radius:.25rem}
.bar i.full{background:var(--bad)}
.worst li{list-style:none;padding:.4rem 0;border-top:1px solid var(--line)}.worst{margin:.4rem 0 0;padding:0}
.worst .head{margin:0}
.worst p{overflow-wrap:anywhere}
ul.hosts li{grid-template-columns:minmax(0,1.5fr) 5.5rem 5.5rem 6rem 6rem 5rem minmax(0,2.2fr)}
ul.hosts li.top{font-size:.75rem;color:var(--muted)}ul.hosts .num{font-variant-numeric:tabular-nums}
ul.hosts b{display:none;font-weight:400;color:var(--muted)}
@media(max-width:54rem){ul.hosts li{grid-template-columns:1fr 1fr}ul.hosts li.top{display:none}ul.hosts b{display:inline}
ul.hosts li span{grid-column:auto}ul.hosts li span.wide{grid-column:1/-1}}
)css";

constexpr int kCell = 10;  ///< width of a piece of the period in a strip's own units
constexpr int kStripPlaces = 32;
constexpr size_t kShownLines = 60;  ///< of changes in one strip
constexpr size_t kShownWorst = 5;
constexpr size_t kShownChanges = 100;
constexpr size_t kShownProblems = 10;
constexpr size_t kNameBytes = 100;
constexpr size_t kTextBytes = 160;
constexpr int64_t kFull100Times = 8000;
constexpr double kPercent = 100;
constexpr size_t kStandings = std::size(kHostStandingNames);

FleetMark MarkAt(size_t index) {
    return static_cast<FleetMark>(index);
}

std::string Number(uint64_t number) {
    return std::to_string(number);
}

std::string Badge(const char* letter, const std::string& text, const std::string& more = "") {
    return Text("<i class=\"k %s\"", letter) + more + ">" + text + "</i>";
}

ReportAxis AxisOf(const TallyPeriod& period) {
    return {period.from, period.BeginOf(period.columns)};
}

// --- summary ---------------------------------------------------------------------------------------------------------

const char* StyleOf(HostStanding standing) {
    switch (standing) {
        case HostStanding::kOk: return "ok";
        case HostStanding::kGone:
        case HostStanding::kBlocked:
        case HostStanding::kUnreadable: return "problem";
        case HostStanding::kTroubled:
        case HostStanding::kLate: break;
    }
    return "warning";
}

std::string DrawSummary(const FleetReportFacts& facts) {
    const HostCounts counts = CountHosts(facts.roster);
    const MarkCounts& marks = facts.tally.Fleet().counts;
    std::string html = "<div class=\"tiles\">" + DrawTile(Number(facts.roster.Rows().size()),
                                                          facts.group.empty() ? "hosts" : "hosts of the group");
    for (size_t i = 0; i < kStandings; ++i) {
        const auto standing = static_cast<HostStanding>(i);
        const bool always = standing != HostStanding::kBlocked && standing != HostStanding::kUnreadable;
        if (counts[i] == 0 && !always) continue;
        html += DrawTile(counts[i] == 0 ? "0" : Text("<span class=\"%s\">%zu</span>", StyleOf(standing), counts[i]),
                         NameOf(standing));
    }
    html += "</div><div class=\"tiles\">" + DrawTile(Number(facts.tally.Fleet().events), "events");
    const auto add = [&](FleetMark mark, const char* words) {
        html += DrawTile(Number(marks[static_cast<size_t>(mark)]), words);
    };
    add(FleetMark::kOom, "out-of-memory kills");
    add(FleetMark::kKill, "self-kills");
    add(FleetMark::kHeldBack, "held back by a limit");
    add(FleetMark::kLate, "stored late");
    const uint64_t drifts =
        marks[static_cast<size_t>(FleetMark::kDrift)] + marks[static_cast<size_t>(FleetMark::kNotPutRight)];
    return html + DrawTile(Number(drifts), "drifts of a limit") +
           DrawTile(Number(facts.changes.size()), "changes of the configuration") + "</div>";
}

std::string DrawBroker(const FleetReportFacts& facts) {
    std::string html = "<h2>Broker and agents</h2><section class=\"card\"><p>agents: " +
                       EscapeHtml(DescribeVersions(facts.roster), 600) +
                       "</p><p>broker: " + EscapeHtml(DescribeBroker(facts.cluster)) + "</p>";
    for (const FleetStream& stream : facts.cluster.streams) {
        const int64_t fill = FillOf(stream);
        html += "<div class=\"head\"><span>" + EscapeHtml(stream.name, kNameBytes) + "</span><span>" +
                EscapeHtml(DescribeStream(facts.cluster, stream, facts.roster.Time().now)) + "</span></div>";
        if (fill < 0 || !stream.problem.empty()) continue;
        html += Text("<div class=\"bar\"><i%s style=\"width:%.2f%%\"></i></div>",
                     fill >= kFull100Times ? " class=\"full\"" : "",
                     std::min(kPercent, static_cast<double>(fill) / kPercent));
    }
    return html + "</section>";
}

std::string DrawFindings(const FleetReportFacts& facts) {
    std::string html = "<h2>What is not well</h2><section class=\"card\">";
    if (facts.findings.empty()) return html + "<p class=\"ok\">all is as it should be</p></section>";
    return html + DrawFindingList(facts.findings) + "</section>";
}

// --- over time -------------------------------------------------------------------------------------------------------

using Column = std::array<uint32_t, kFleetMarks>;

uint64_t SumOf(const Column& column) {
    uint64_t sum = 0;
    for (const uint32_t count : column) sum += count;
    return sum;
}

/// One of many is seen, and many are seen to be more.
double Strength(uint64_t count, uint64_t most) {
    const double share =
        std::log1p(static_cast<double>(count)) / std::log1p(static_cast<double>(std::max<uint64_t>(1, most)));
    return 0.3 + 0.7 * std::min(1.0, share);
}

class Strips {
public:
    explicit Strips(const FleetReportFacts& facts)
        : m_facts(facts),
          m_period(facts.tally.Period()),
          m_axis(AxisOf(m_period)),
          m_begin(Text("<div class=\"heat\"><svg viewBox=\"0 0 %d 10\" preserveAspectRatio=\"none\">",
                       static_cast<int>(m_period.columns) * kCell)) {
        const int units = static_cast<int>(m_period.columns) * kCell;
        std::set<int> places;
        for (const FleetChange& change : facts.changes) places.insert(static_cast<int>(m_axis.At(change.time) * units));
        size_t shown = 0;
        for (const int place : places) {
            if (++shown > kShownLines) break;
            m_lines += Text("<path class=\"mk C\" d=\"M%d 0V10\"/>", place);
        }
        m_lines += "</svg></div>";
    }

    /// One kind of what happened, of all hosts.
    std::string OfMark(FleetMark mark) const {
        const std::vector<Column>& columns = m_facts.tally.Fleet().columns;
        const auto index = static_cast<size_t>(mark);
        uint64_t most = 0;
        for (const Column& column : columns) most = std::max<uint64_t>(most, column[index]);
        std::string html = "<div class=\"row\"><div class=\"n\">" + Number(m_facts.tally.Fleet().counts[index]) +
                           Badge(LetterOf(mark), LetterOf(mark)) + "</div>" + m_begin;
        for (size_t i = 0; i < columns.size(); ++i) {
            if (columns[i][index] > 0) html += Cell(i, mark, columns[i][index], most, Number(columns[i][index]));
        }
        return html + m_lines + "</div>";
    }

    /// All of a host, or of some together: each piece of time has the colour of the worst in it.
    std::string OfHost(const std::vector<Column>& columns, uint64_t most, uint64_t sum) const {
        std::string html = "<div class=\"row\"><div class=\"n\">" + Number(sum) + "</div>" + m_begin;
        for (size_t i = 0; i < columns.size(); ++i) {
            std::string list;
            FleetMark worst = FleetMark::kLate;
            for (size_t mark = kFleetMarks; mark-- > 0;) {
                if (columns[i][mark] == 0) continue;
                worst = MarkAt(mark);
                list = LetterOf(worst) + Number(columns[i][mark]) + " " + list;
            }
            if (!list.empty()) html += Cell(i, worst, SumOf(columns[i]), most, list);
        }
        return html + m_lines + "</div>";
    }

    std::string OfChanges() const {
        if (m_facts.changes.empty()) return "";
        std::map<int, std::pair<double, size_t>> places;  // where the first one of a place is, and how many there are
        for (const FleetChange& change : m_facts.changes) {
            const double at = m_axis.At(change.time);
            ++places.try_emplace(static_cast<int>(at * (kStripPlaces - 1)), at, 0).first->second.second;
        }
        std::string html = "<div class=\"row\"><div class=\"n\">" + Number(m_facts.changes.size()) + Badge("C", "C") +
                           "</div><div class=\"strip\">";
        for (const auto& [place, found] : places) {
            html += Badge("C", found.second == 1 ? "C" : "C" + Number(found.second),
                          Text(" style=\"left:%.1f%%\"", found.first * kPercent));
        }
        return html + "</div></div>";
    }

    std::string Times() const { return DrawTimes(m_axis); }

private:
    std::string Cell(size_t column, FleetMark mark, uint64_t count, uint64_t most, const std::string& title) const {
        return Text("<rect class=\"%s\" x=\"%zu\" width=\"%d\" height=\"10\" fill-opacity=\"%.2f\"><title>",
                    LetterOf(mark), column * kCell, kCell - 1, Strength(count, most)) +
               ReportClock(m_period.BeginOf(column), "%d %b %H:%M") + " " + title + "</title></rect>";
    }

    const FleetReportFacts& m_facts;
    const TallyPeriod& m_period;
    const ReportAxis m_axis;
    std::string m_begin;
    std::string m_lines;  // and the end
};

std::string DrawKey() {
    std::string html = "<p class=\"key\">";
    for (size_t i = 0; i < kFleetMarks; ++i) {
        html += "<span>" + Badge(LetterOf(MarkAt(i)), LetterOf(MarkAt(i))) + " " + NameOf(MarkAt(i)) + "</span>";
    }
    return html + "<span>" + Badge("C", "C") + " change of the configuration</span></p>";
}

std::string DrawChanges(const FleetReportFacts& facts) {
    if (facts.changes.empty()) return "<p class=\"muted\">no change of the fleet's configuration</p>";
    std::string html =
        Text("<details%s><summary>changes of the configuration, newest first</summary><ul class=\"list\">",
             facts.changes.size() <= 8 ? " open" : "");
    size_t shown = 0;
    for (auto change = facts.changes.rbegin(); change != facts.changes.rend() && shown < kShownChanges;
         ++change, ++shown) {
        html += "<li><time>" + ReportClock(change->time, "%d %b %H:%M:%S") + "</time>" + Badge("C", "C") + "<span>" +
                EscapeHtml(change->level, kNameBytes) +
                Text(" (%llu): ", static_cast<unsigned long long>(change->revision)) +
                EscapeHtml(change->what, kTextBytes) + "</span></li>";
    }
    html += "</ul>";
    if (facts.changes.size() > shown)
        html += Text("<p class=\"muted\">and %zu before these</p>", facts.changes.size() - shown);
    if (facts.changesLeftOut > 0)
        html += Text("<p class=\"muted\">not all changes of %zu more keys were read</p>", facts.changesLeftOut);
    return html + "</details>";
}

std::string DrawFleetOverTime(const FleetReportFacts& facts, const Strips& strips) {
    const TallyPeriod& period = facts.tally.Period();
    std::string html = "<h2>What happened</h2><section class=\"card over\"><p class=\"small muted\">each piece is " +
                       HumanDuration(period.width * 1000) +
                       "; the stronger, the more; dashed lines: changes of the configuration</p>" + strips.OfChanges();
    const MarkCounts& counts = facts.tally.Fleet().counts;
    size_t kinds = 0;
    for (size_t i = 0; i < kFleetMarks; ++i) {
        if (counts[i] == 0) continue;
        html += strips.OfMark(MarkAt(i));
        ++kinds;
    }
    if (kinds == 0) html += "<p class=\"muted\">nothing that is counted</p>";
    if (kinds > 0 || !facts.changes.empty()) html += strips.Times();
    return html + DrawKey() + DrawChanges(facts) + "</section>";
}

std::string DrawHostsOverTime(const FleetReportFacts& facts, const std::vector<const HostTally*>& heaviest,
                              const Strips& strips) {
    if (heaviest.empty()) return "";
    uint64_t most = 0;
    const size_t shown = std::min(heaviest.size(), kShownHostRows);
    for (size_t i = 0; i < shown; ++i) {
        for (const Column& column : heaviest[i]->columns) most = std::max(most, SumOf(column));
    }
    std::string html =
        "<h2>Hosts over time</h2><section class=\"card over\"><p class=\"small muted\">the most first; each piece has "
        "the colour of the worst in it</p>";
    for (size_t i = 0; i < shown; ++i) {
        html += "<div class=\"head\"><span>" + EscapeHtml(heaviest[i]->host, kNameBytes) + "</span></div>" +
                strips.OfHost(heaviest[i]->columns, most, heaviest[i]->Weight());
    }
    // What is not of these is of the others, those without a row of their own included.
    std::vector<Column> rest = facts.tally.Fleet().columns;
    uint64_t sum = facts.tally.Fleet().Weight();
    for (size_t i = 0; i < shown; ++i) {
        sum -= heaviest[i]->Weight();
        for (size_t at = 0; at < rest.size(); ++at) {
            for (size_t mark = 0; mark < kFleetMarks; ++mark) rest[at][mark] -= heaviest[i]->columns[at][mark];
        }
    }
    if (sum > 0) {
        uint64_t highest = 0;
        for (const Column& column : rest) highest = std::max(highest, SumOf(column));
        const std::string others = facts.tally.LeftOut() == 0
                                       ? Text("%zu other hosts together", heaviest.size() - shown)
                                       : std::string("other hosts together");
        html += "<div class=\"head\"><span>" + others + "</span></div>" + strips.OfHost(rest, highest, sum);
    }
    return html + strips.Times() + "</section>";
}

// --- who stands out --------------------------------------------------------------------------------------------------

std::string DrawWorst(FleetMark mark, const std::vector<const HostTally*>& heaviest) {
    const auto index = static_cast<size_t>(mark);
    std::vector<const HostTally*> hosts;
    for (const HostTally* host : heaviest) {
        if (host->counts[index] > 0) hosts.push_back(host);
    }
    if (hosts.empty()) return "";
    std::stable_sort(hosts.begin(), hosts.end(),
                     [index](const HostTally* a, const HostTally* b) { return a->counts[index] > b->counts[index]; });
    std::string html = "<section class=\"card\"><h3>" + Badge(LetterOf(mark), LetterOf(mark)) + " " + NameOf(mark) +
                       "</h3><p class=\"small muted\">" +
                       (hosts.size() == 1 ? "1 host" : Number(hosts.size()) + " hosts") + "</p><ul class=\"worst\">";
    for (size_t i = 0; i < hosts.size() && i < kShownWorst; ++i) {
        const HostTally& host = *hosts[i];
        const LastEvent& last = host.last.at(mark);
        html +=
            "<li><div class=\"head\"><span>" + EscapeHtml(host.host, kNameBytes) + "</span><span>" +
            Number(host.counts[index]) + "</span></div>" +
            Text("<div class=\"bar\"><i class=\"%s\" style=\"width:%.2f%%\"></i></div>", LetterOf(mark),
                 kPercent * static_cast<double>(host.counts[index]) / static_cast<double>(hosts[0]->counts[index])) +
            "<p class=\"small\"><time>" + ReportClock(last.time, "%d %b %H:%M:%S") + "</time> " +
            EscapeHtml(last.what, kTextBytes) + "</p><p class=\"small muted\">" + EscapeHtml(last.name, kNameBytes) +
            "</p></li>";
    }
    return html + "</ul></section>";
}

std::string DrawOffenders(const std::vector<const HostTally*>& heaviest) {
    std::string cards;
    for (size_t i = 0; i < kFleetMarks; ++i) cards += DrawWorst(MarkAt(i), heaviest);
    if (cards.empty()) return "";
    return "<h2>Who stands out</h2><p class=\"small muted\">with the last event of its kind; tervanectl fleet explain "
           "tells its story</p><div class=\"grid\">" +
           cards + "</div>";
}

// --- the hosts -------------------------------------------------------------------------------------------------------

std::string NoteOf(const FleetRow& row) {
    const HostState& state = row.state;
    if (!row.problem.empty()) return row.problem;
    if (!state.config.error.empty()) return "configuration: " + state.config.error;
    if (!state.blocked.empty()) return "its events do not get through: " + state.blocked;
    if (!state.findings.empty()) return state.findings[0];
    if (row.standing == HostStanding::kTroubled && !state.agentRuns) return "its agent does not run";
    return state.config.pinned ? "pinned: it keeps a configuration of its own" : "";
}

std::string DrawHost(const FleetRow& row) {
    const AppliedConfig& config = row.state.config;
    const auto revision = [](uint64_t number) { return number == 0 ? std::string("-") : Number(number); };
    const std::string note = NoteOf(row);
    return "<li><span class=\"wide\">" + EscapeHtml(row.name, kNameBytes) +
           Text("</span><span class=\"tag %s\">%s</span><span>", StyleOf(row.standing), NameOf(row.standing)) +
           EscapeHtml(row.state.version.empty() ? "-" : row.state.version, 40) +
           "</span><span class=\"num\"><b>seen </b>" + revision(config.seen) +
           "</span><span class=\"num\"><b>applied </b>" + revision(config.applied) +
           "</span><span class=\"num\"><b>silent </b>" + HumanDuration(std::max<int64_t>(0, row.silentSeconds) * 1000) +
           "</span><span class=\"wide muted small\">" + EscapeHtml(note, kTextBytes) + "</span></li>";
}

std::string DrawConfiguration(const FleetReportFacts& facts) {
    size_t current = 0;
    size_t behind = 0;
    size_t refused = 0;
    size_t pinned = 0;
    size_t none = 0;
    for (const FleetRow& row : facts.roster.Rows()) {
        const AppliedConfig& config = row.state.config;
        if (!row.problem.empty()) continue;
        ++(config.pinned                             ? pinned
           : !config.error.empty()                   ? refused
           : config.seen == 0 && config.applied == 0 ? none
           : config.applied >= config.seen           ? current
                                                     : behind);
    }
    return Text(
        "<p>the fleet's configuration: %zu hosts have applied what they have seen, %zu are behind, %zu refuse it, "
        "%zu keep their own, %zu have seen none</p>",
        current, behind, refused, pinned, none);
}

std::string DrawHosts(const FleetReportFacts& facts) {
    const std::vector<const FleetRow*> rows = HostsInOrder(facts);
    std::string html = "<h2>Hosts</h2><section class=\"card\">" + DrawConfiguration(facts);
    if (rows.empty()) return html + "<p class=\"muted\">no host has said anything of itself yet</p></section>";
    html += Text("<details%s><summary>one by one, what is not well first</summary><ul class=\"list hosts\">",
                 rows.size() <= 50 ? " open" : "");
    html +=
        "<li class=\"top\"><span>host</span><span>state</span><span>agent</span><span>seen</span><span>applied</span>"
        "<span>silent</span><span>what there is to it</span></li>";
    HostCounts more{};
    for (size_t i = 0; i < rows.size(); ++i) {
        if (i < kShownHosts) {
            html += DrawHost(*rows[i]);
        } else {
            ++more[static_cast<size_t>(rows[i]->standing)];
        }
    }
    html += "</ul>";
    if (rows.size() > kShownHosts) {
        html += Text("<p class=\"muted\">and %zu more:", rows.size() - kShownHosts);
        for (size_t i = 0; i < kStandings; ++i) {
            if (more[i] > 0) html += Text(" %zu %s", more[i], kHostStandingNames[i]);
        }
        html += "</p>";
    }
    return html + "</details></section>";
}

std::string DrawHead(const FleetReportFacts& facts) {
    const TallyPeriod& period = facts.tally.Period();
    const std::string of = facts.group.empty() ? std::string() : " group " + EscapeHtml(facts.group, kNameBytes);
    std::string html = BeginPage("Fleet report" + (of.empty() ? of : " of" + of), kFleetStyle) + "<h1>Fleet" +
                       (of.empty() ? of : "," + of) + "</h1><p class=\"muted\">" +
                       ReportClock(period.from, "%a %d %b %Y %H:%M") + " to " +
                       ReportClock(period.to, "%a %d %b %Y %H:%M %Z") + "</p><p class=\"muted small\">tervanectl " +
                       EscapeHtml(facts.version, 40) +
                       (facts.roster.Time().isTold ? ", by the broker's clock" : ", by the youngest word of any host") +
                       ", from " + Number(facts.tally.Fleet().events) + " events</p>";
    const auto warn = [&html](const std::string& text) { html += "<p class=\"warning\">" + EscapeHtml(text) + "</p>"; };
    const StreamReach reach = ReachOf(facts.cluster, period.from);
    if (!reach.note.empty()) warn(reach.note);
    for (size_t i = 0; i < facts.problems.size() && i < kShownProblems; ++i) warn(facts.problems[i]);
    if (facts.unread > 0) warn(Number(facts.unread) + " lines of the stream are no events and are left out");
    if (facts.tally.LeftOut() > 0) {
        warn(Number(facts.tally.LeftOut()) +
             " events are of hosts for which there was no row: they count for the fleet alone");
    }
    return html;
}

}  // namespace

StreamReach ReachOf(const FleetCluster& cluster, int64_t since) {
    StreamReach reach;
    const auto found = std::find_if(cluster.streams.begin(), cluster.streams.end(),
                                    [](const FleetStream& stream) { return stream.name == kEventStream; });
    if (found == cluster.streams.end() || !found->problem.empty()) {
        reach.note = "How far back the stream of events reaches is not known.";
        return reach;
    }
    reach.from = static_cast<int64_t>(found->firstTime);
    if (found->messages == 0) {
        reach.note = "The stream of events is empty: what happened in this time is not known.";
    } else if (reach.from <= since) {
        reach.isWhole = true;
    } else if (found->firstSequence > 1) {
        reach.note = "The stream of events reaches back to " + ClockText(reach.from) +
                     " only: older events are no longer in it, and of the time before nothing is known.";
    } else {
        reach.note =
            "The stream's first event is of " + ClockText(reach.from) + ": of the time before nothing is known.";
    }
    return reach;
}

std::vector<const FleetRow*> HostsInOrder(const FleetReportFacts& facts) {
    std::vector<const FleetRow*> rows;
    for (const FleetRow& row : facts.roster.Rows()) rows.push_back(&row);
    const auto rank = [](const FleetRow* row) {
        constexpr int kRanks[kStandings] = {6, 4, 3, 0, 1, 2};  // in the order of HostStanding
        const AppliedConfig& config = row->state.config;
        const bool behind = !config.pinned && config.applied < config.seen;
        const int configured = !config.error.empty() ? 0 : behind ? 1 : 2;
        return std::make_tuple(kRanks[static_cast<size_t>(row->standing)], configured);
    };
    std::stable_sort(rows.begin(), rows.end(), [&](const FleetRow* a, const FleetRow* b) { return rank(a) < rank(b); });
    return rows;
}

std::string MakeFleetPage(const FleetReportFacts& facts) {
    const std::vector<const HostTally*> heaviest = HeaviestHosts(facts.tally);
    const Strips strips(facts);
    return DrawHead(facts) + DrawSummary(facts) + DrawFindings(facts) + DrawFleetOverTime(facts, strips) +
           DrawOffenders(heaviest) + DrawHostsOverTime(facts, heaviest, strips) + DrawBroker(facts) + DrawHosts(facts) +
           EndPage();
}

}  // namespace agent
