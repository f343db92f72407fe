// Lines of the demonstration, folded where the terminal ends.
#include "Narrator.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "Text.h"
#include "ctl/View.h"
#include "base/Clock.h"

namespace agent {

namespace {

constexpr size_t kColumnsWithoutTerminal = 110;
constexpr size_t kLeastColumns = 40;
constexpr size_t kMargin = 8;

size_t Columns() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kColumnsWithoutTerminal;
    return std::max<size_t>(size.ws_col, kLeastColumns);
}

int64_t SecondsNow() {
    return base::ClockNs(CLOCK_MONOTONIC) / base::kNsPerSecond;
}

}  // namespace

Narrator::Narrator() : m_begin(SecondsNow()) {}

void Narrator::Put(const std::string& first, const std::string& text, LineKind kind, bool isSentence) {
    std::string margin = first + std::string(kMargin - std::min(kMargin, first.size()), ' ');
    std::string all;
    for (const TextLine& line : FoldLines({{text, LineKind::kPlain}}, Columns() - kMargin - 1)) {
        // Sentences go on right below, a table's second column below itself.
        const std::string part = isSentence ? line.text.substr(line.text.find_first_not_of(' ')) : line.text;
        all += margin + Painted(part, kind) + "\n";
        margin = isSentence ? std::string(kMargin, ' ') : margin;
    }
    fputs(all.c_str(), stdout);
    if (fflush(stdout) != 0) m_readerIsGone = true;
}

void Narrator::Title(const std::string& text) {
    fputs("\n", stdout);
    Put("", text, LineKind::kTitle, true);
}

void Narrator::Say(const std::string& text) {
    Put(Text("%4lld s", static_cast<long long>(SecondsNow() - m_begin)), text, LineKind::kPlain, true);
}

void Narrator::Command(const std::string& text) {
    Put("", "$ " + text, LineKind::kNotice, true);
}

void Narrator::Answer(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        Put("      |", text.substr(at, end - at), LineKind::kPlain, false);
        at = end + 1;
    }
}

}  // namespace agent
