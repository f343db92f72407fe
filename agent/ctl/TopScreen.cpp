// The page on ncurses with wide characters.
#include "TopScreen.h"

#include <curses.h>
#include <unistd.h>

#include <clocale>
#include <cwchar>

namespace agent {

namespace {

constexpr short kAlarmPair = 1;

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
    }
    return true;
}

int TopScreen::Columns() const {
    return COLS;
}

void TopScreen::Show(const std::vector<TextLine>& lines, const std::string& footer) {
    const int rows = LINES - 1;
    erase();
    for (int row = 0; row < rows && row < static_cast<int>(lines.size()); ++row) {
        const TextLine& line = lines[static_cast<size_t>(row)];
        DrawRow(row, line.text, AttributesOf(line.kind));
    }
    const int hidden = static_cast<int>(lines.size()) - rows;
    DrawRow(LINES - 1, hidden > 0 ? footer + "  (" + std::to_string(hidden) + " more lines below)" : footer, A_REVERSE);
    refresh();
}

int TopScreen::WaitKey(int milliseconds) {
    timeout(milliseconds);
    const int key = getch();
    if (key == ERR) return kNone;
    return key == KEY_RESIZE ? kResized : key;
}

}  // namespace agent
