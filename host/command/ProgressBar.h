#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace ParvaneHost {

/**
 * A bar on a terminal's current line that fills while something goes on that has a longest time. It may
 * be over earlier, and nothing tells when: a measurement that joins one under way ends with that one.
 *
 * Removes itself at the end. Borrows the descriptor; failing writes are ignored, as it is decoration.
 */
class ProgressBar
{
public:
    /**
     * Draws nothing yet.
     *
     * @param label  stands before the bar
     * @param total  when the bar is full, the longest time; at least 1 ms
     */
    ProgressBar(int fd, std::string label, std::chrono::milliseconds total);
    ~ProgressBar();

    ProgressBar(const ProgressBar &) = delete;
    ProgressBar &operator=(const ProgressBar &) = delete;

    /** Draws the bar for the time since construction, if it looks different from what stands there. */
    void Update();

    /** Erases the bar, if it was drawn. */
    void Remove();

    /** The text of a bar: "label [#####.....]  7 s of at most 15 s", cut to `columns`. */
    static std::string Render(std::string_view label, std::chrono::milliseconds elapsed,
                              std::chrono::milliseconds total, std::size_t columns);

private:
    void Write(std::string_view text) const;
    [[nodiscard]] std::size_t Columns() const;

    int mFd;
    std::string mLabel;
    std::chrono::milliseconds mTotal;
    std::chrono::steady_clock::time_point mBegin;
    std::string mShown;
};

} // namespace ParvaneHost
