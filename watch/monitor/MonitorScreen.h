#pragma once

#include <string>
#include <vector>

namespace ParvaneWatch {

/**
 * The terminal as a screen, from the first to the last moment of this object; what it was before comes
 * back then, whatever the reason. One at a time.
 */
class MonitorScreen
{
public:
    /** @throws std::runtime_error when the terminal is of an unknown type, or cannot move its cursor */
    MonitorScreen();
    ~MonitorScreen();

    MonitorScreen(const MonitorScreen &) = delete;
    MonitorScreen &operator=(const MonitorScreen &) = delete;

    /** Shows `lines`, the first in bold, the last inverted. Only what differs is written. */
    void Draw(const std::vector<std::string> &lines);

    /** The next key that has been pressed, as MonitorKeys knows it; 0 when there is none. */
    int NextKey();

    /** Takes over the size that the terminal has now. */
    void Resize();

    [[nodiscard]] std::size_t Columns() const;
    [[nodiscard]] std::size_t Rows() const;

    /** Whether characters other than ASCII can be shown. */
    [[nodiscard]] bool IsUtf8() const { return mIsUtf8; }

private:
    struct Curses;
    Curses *mCurses = nullptr;
    bool mIsUtf8 = false;
};

} // namespace ParvaneWatch
