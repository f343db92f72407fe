// The page on ncurses with wide characters.
#include "TopScreen.h"

#include <curses.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cwchar>

namespace agent {

namespace {

constexpr short kAlarmPair = 1;
constexpr short kNoticePair = 2;

/// The text as far as it fits; what this terminal's character set does not have becomes '?'.
std::wstring Fitting(const std::string& text, int columns) {
    std::wstring shown;
    std::mbstate_t state{};
    const char* at = text.data();
    const char* end = at + text.size();
    int used = 0;
    while (at < end) {
        wchar_t letter = L'?';
        size_t bytes = mbrtowc(&letter, at, static_cast<size_t>(end - at), &state);
        if (bytes == 0 || bytes > static_cast<size_t>(end - at)) {
            letter = L'?';
            bytes = 1;
            state = {};
        }
        const int width = wcwidth(letter);
        if (width < 0 || used + width > columns) break;
        used += width;
        shown += letter;
        at += bytes;
    }
    return shown;
}

attr_t AttributesOf(LineKind kind) {
    switch (kind) {
        case LineKind::kPlain: break;
        case LineKind::kTitle: return A_BOLD;
        case LineKind::kTableHead: return A_REVERSE;
        case LineKind::kNotice: return has_colors() ? static_cast<attr_t>(COLOR_PAIR(kNoticePair)) : A_BOLD;
        case LineKind::kAlarm: return A_BOLD | (has_colors() ? static_cast<attr_t>(COLOR_PAIR(kAlarmPair)) : 0);
    }
    return A_NORMAL;
}

void DrawRow(int row, const std::string& text, attr_t attributes) {
    // The last column stays free: a letter there would move the page on some terminals.
    const std::wstring shown = Fitting(text, COLS - 1);
    attrset(attributes);
    mvaddnwstr(row, 0, shown.c_str(), static_cast<int>(shown.size()));
    attrset(A_NORMAL);
}

}  // namespace

TopScreen::~TopScreen() {
    if (m_screen == nullptr) return;
    endwin();
    delscreen(m_screen);
}

bool TopScreen::Open() {
    setlocale(LC_CTYPE, "");
    m_screen = newterm(nullptr, stdout, stdin);
    if (m_screen == nullptr) return false;
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    curs_set(0);
    if (has_colors()) {
        start_color();
        use_default_colors();
        init_pair(kAlarmPair, COLOR_RED, -1);
        init_pair(kNoticePair, COLOR_YELLOW, -1);
    }
    return true;
}

int TopScreen::Columns() const {
    return COLS;
}

size_t TopScreen::Show(const std::vector<TextLine>& lines, size_t first, const std::string& footer) {
    const auto rows = static_cast<size_t>(std::max(1, LINES - 1));
    first = std::min(first, lines.size() > rows ? lines.size() - rows : 0);
    erase();
    for (size_t row = 0; row < rows && first + row < lines.size(); ++row) {
        const TextLine& line = lines[first + row];
        DrawRow(static_cast<int>(row), line.text, AttributesOf(line.kind));
    }
    const size_t below = lines.size() - std::min(lines.size(), first + rows);
    std::string shown = footer;
    if (below > 0) shown = "(" + std::to_string(below) + " more lines below)  " + footer;
    DrawRow(LINES - 1, shown, A_REVERSE);
    refresh();
    return first;
}

int TopScreen::WaitKey(int milliseconds) {
    timeout(milliseconds);
    const int key = getch();
    if (key == ERR) return kNone;
    return key == KEY_RESIZE ? kResized : key == KEY_UP ? kUp : key == KEY_DOWN ? kDown : key;
}

}  // namespace agent
