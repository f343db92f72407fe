// The terminal as a page of lines that is drawn anew, and its keys.
#pragma once

#include <string>
#include <vector>

#include "StatusText.h"

struct screen;

namespace agent {

/// Thread-safety: one thread. Lifetime: one at a time; the terminal is as it was before when this object is gone.
class TopScreen {
public:
    TopScreen() = default;
    ~TopScreen();
    TopScreen(const TopScreen&) = delete;
    TopScreen& operator=(const TopScreen&) = delete;

    /// Returns: false when this terminal can do nothing but show lines.
    bool Open();

    int Columns() const;
    /// Shows lines from the `first` on, as far as there is one, and `footer` on the last row; what does not fit is cut,
    /// and the footer says so. Returns: the line that stands first.
    size_t Show(const std::vector<TextLine>& lines, size_t first, const std::string& footer);
    /// Waits for a key or the time. Returns: the key, kResized when the page must be drawn again, kNone.
    int WaitKey(int milliseconds);

    static constexpr int kNone = -1;
    static constexpr int kResized = -2;
    static constexpr int kUp = -3;
    static constexpr int kDown = -4;

private:
    screen* m_screen = nullptr;
};

}  // namespace agent
