// The loop of the live view: ask once a second, show, take keys.
#include "Top.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <deque>
#include <memory>

#include "AskAgent.h"
#include "Cooperation.h"
#include "StatusJson.h"
#include "Text.h"
#include "TopHistory.h"
#include "TopJson.h"
#include "TopScreen.h"
#include "View.h"
#include "base/Clock.h"

namespace agent {

namespace {

constexpr int64_t kPeriodUs = 1000000;
constexpr int kWideColumns = 113;
constexpr size_t kShownLogLines = 8;
constexpr uint64_t kPlainEvery = 2;  // statuses for each plain picture: nobody reads one a second in a file

volatile sig_atomic_t g_ended = 0;

void NoteEnd(int) {
    g_ended = 1;
}

/// The terminal is given back, and the summary said, before the program ends.
void TakeSignals() {
    struct sigaction action {};
    action.sa_handler = NoteEnd;
    for (int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

int64_t MonotonicUs() {
    return base::ClockNs(CLOCK_MONOTONIC) / 1000;
}

base::Result<StatusReport> ReadStatus(const TopOptions& options) {
    return ReadStatus(AskAgent(options.appDir, options.process, "status"));
}

/// Whoever shows one status after the other.
class Viewer {
public:
    virtual ~Viewer() = default;
    virtual void Show(const StatusReport& report, const TopHistory& history) = 0;
    /// Waits for something to do. Returns: false when the watcher has seen enough.
    virtual bool Wait(int milliseconds) = 0;
};

class PlainView final : public Viewer {
public:
    void Show(const StatusReport& report, const TopHistory& history) override {
        std::string text;
        const bool due = m_taken++ % kPlainEvery == 0;
        if (due) text = JoinLines(MakePicture(report, history.Shares(), {}));
        for (const std::string& line : history.NewLines()) text += "log  " + line + "\n";
        if (due) text += "\n";
        fputs(text.c_str(), stdout);
        if (fflush(stdout) != 0) m_readerIsGone = true;
    }
    bool Wait(int milliseconds) override {
        poll(nullptr, 0, milliseconds);
        return !m_readerIsGone;
    }

private:
    uint64_t m_taken = 0;
    bool m_readerIsGone = false;
};

class JsonView final : public Viewer {
public:
    explicit JsonView(const std::string& appDir) : m_watch(appDir) {}

    void Show(const StatusReport& report, const TopHistory& history) override {
        m_watch.Follow(report);
        fputs(ViewText(TopLook(report, history, m_watch.Get()), true).c_str(), stdout);
        if (fflush(stdout) != 0) m_readerIsGone = true;
    }
    bool Wait(int milliseconds) override {
        poll(nullptr, 0, milliseconds);
        return !m_readerIsGone;
    }

private:
    CooperationWatch m_watch;
    bool m_readerIsGone = false;
};

class PageView final : public Viewer {
public:
    explicit PageView(const std::string& appDir) : m_watch(appDir) {}
    bool Open() { return m_screen.Open(); }

    void Show(const StatusReport& report, const TopHistory& history) override {
        for (const std::string& line : history.NewLines()) m_log.push_back(line);
        while (m_log.size() > kShownLogLines) m_log.pop_front();
        if (m_paused) return;
        m_report = report;
        m_shares = history.Shares();
        m_throttled = history.Throttled();
        m_watch.Follow(report);
        m_cooperation = m_watch.Get();
        Draw();
    }
    bool Wait(int milliseconds) override {
        const int key = m_screen.WaitKey(milliseconds);
        if (key == TopScreen::kNone) return true;
        if (key == 'q' || key == 'Q') return false;
        const bool helped = m_help;
        m_help = !helped && (key == 'h' || key == 'H' || key == '?');
        if (key == 'p' || key == 'P') m_paused = !m_paused;
        if (key == 's' || key == 'S') m_picture.order = NextOrder(m_picture.order);
        if (key == 'j' || key == TopScreen::kDown) ++m_first;
        if ((key == 'k' || key == TopScreen::kUp) && m_first > 0) --m_first;
        Draw();
        return true;
    }

private:
    void Draw() {
        m_picture.wide = m_screen.Columns() >= kWideColumns;
        m_picture.throttled = &m_throttled;
        m_picture.cooperation = &m_cooperation;
        std::vector<TextLine> lines = m_help ? Help() : MakePicture(m_report, m_shares, m_picture);
        if (!m_help && !m_log.empty()) {
            const auto count = static_cast<unsigned long long>(m_report.logCount);
            lines.push_back({"", LineKind::kPlain});
            lines.push_back({Text("log, level 3 or worse (%llu so far):", count), LineKind::kTitle});
            for (const std::string& line : m_log) lines.push_back({"  " + line, LineKind::kPlain});
        }
        m_first = m_screen.Show(FoldLines(lines, static_cast<size_t>(m_screen.Columns() - 1)), m_first,
                                std::string("q quit  h help  p ") + (m_paused ? "go on (PAUSED)" : "pause") +
                                    "  s sort: " + NameOf(m_picture.order) + "  j/k scroll");
    }

    static std::vector<TextLine> Help() {
        return {
            {"keys", LineKind::kTitle},
            {"  q  quit", LineKind::kPlain},
            {"  p  pause: the picture stands still; the process is asked all the same", LineKind::kPlain},
            {"  s  order of the components in each group: tree, cpu, memory, throttling", LineKind::kPlain},
            {"  j  k  or the arrows: down and up, where the page has more lines than the terminal", LineKind::kPlain},
            {"  h  this help, any key leaves it", LineKind::kPlain},
            {"", LineKind::kPlain},
            {"columns", LineKind::kTitle},
            {"  cpu        used since the last second, of the quota; 100 % is one CPU", LineKind::kPlain},
            {"  throttled  share of the periods since the last second in which it was held back; time in all",
             LineKind::kPlain},
            {"  memory     charged to the group now, of its limit", LineKind::kPlain},
            {"  oom        processes killed for want of memory", LineKind::kPlain},
            {"  member     whether the component's processes are in its groups", LineKind::kPlain},
            {"  holds back the answer that a component gives its workers now, and how often it was yes; each is",
             LineKind::kPlain},
            {"             asked every two seconds. Levels: 0 well, 1 busy, 2 very busy", LineKind::kPlain}};
    }

    TopScreen m_screen;
    CooperationWatch m_watch;
    StatusReport m_report;
    CpuShares m_shares;
    CpuShares m_throttled;
    Cooperation m_cooperation;
    size_t m_first = 0;  // line of the page that stands first
    std::deque<std::string> m_log;
    PictureOptions m_picture;
    bool m_paused = false;
    bool m_help = false;
};

std::unique_ptr<Viewer> MakeView(const TopOptions& options) {
    if (options.json) return std::make_unique<JsonView>(options.appDir);
    if (isatty(STDOUT_FILENO) != 0 && isatty(STDIN_FILENO) != 0) {
        auto page = std::make_unique<PageView>(options.appDir);
        if (page->Open()) return page;
    }
    return std::make_unique<PlainView>();
}

}  // namespace

base::Status RunTop(const TopOptions& options) {
    base::Result<StatusReport> status = ReadStatus(options);
    if (!status) return status.GetError();
    TakeSignals();
    std::unique_ptr<Viewer> view = MakeView(options);
    TopHistory history;
    StatusReport last;
    const int64_t begin = MonotonicUs();
    int64_t due = begin;
    bool watched = true;
    while (watched && status) {
        last = *status;
        history.Take(last, MonotonicUs());
        view->Show(last, history);
        due += kPeriodUs;
        for (int64_t now = MonotonicUs(); watched && now < due; now = MonotonicUs()) {
            watched = view->Wait(static_cast<int>((due - now) / 1000) + 1) && g_ended == 0;
        }
        if (options.forSeconds != 0 && due - begin >= options.forSeconds * kPeriodUs) watched = false;
        // A process that was slow to answer is not asked twice at once for it.
        due = std::max(due, MonotonicUs() - kPeriodUs);
        if (watched) status = ReadStatus(options);
    }
    view.reset();  // the terminal is itself again
    if (!status) fprintf(options.json ? stderr : stdout, "%s has ended\n", options.process.c_str());
    if (options.summary) fputs(JoinLines(MakeSummary(last)).c_str(), stdout);
    return {};
}

}  // namespace agent
