#include "ProgressBar.h"

#include <algorithm>
#include <sys/ioctl.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace ParvaneHost {

using std::chrono::milliseconds;

ProgressBar::ProgressBar(int fd, std::string label, milliseconds total)
    : mFd(fd),
      mLabel(std::move(label)),
      mTotal(std::max(total, milliseconds{1})),
      mBegin(std::chrono::steady_clock::now())
{}

ProgressBar::~ProgressBar()
{
    Remove();
}

void ProgressBar::Update()
{
    const auto elapsed =
        std::chrono::floor<milliseconds>(std::chrono::steady_clock::now() - mBegin);
    std::string text = Render(mLabel, elapsed, mTotal, Columns());
    if (text != mShown) {
        Write("\r\033[K" + text);
        mShown = std::move(text);
    }
}

void ProgressBar::Remove()
{
    if (!mShown.empty()) {
        Write("\r\033[K");
        mShown.clear();
    }
}

std::string ProgressBar::Render(std::string_view label, milliseconds elapsed, milliseconds total,
                                std::size_t columns)
{
    constexpr std::size_t kCells = 30;
    const milliseconds shown = std::clamp(elapsed, milliseconds{0}, total);
    const auto seconds = [](milliseconds length) {
        return std::to_string(std::chrono::floor<std::chrono::seconds>(length).count());
    };
    const auto filled =
        static_cast<std::size_t>(shown.count() * static_cast<int>(kCells) / total.count());
    const std::string whole = seconds(total);
    const std::string passed = seconds(shown);
    std::string text(label);
    text += " [" + std::string(filled, '#') + std::string(kCells - filled, '.') + "] ";
    text += elapsed < total + std::chrono::seconds{1}
                ? std::string(whole.size() - passed.size(), ' ') + passed + " s of at most " +
                      whole + " s"
                : seconds(elapsed) + " s, longer than expected";
    // A line that fills the last column wraps, and could not be erased as one line.
    return text.substr(0, columns == 0 ? 0 : columns - 1);
}

void ProgressBar::Write(std::string_view text) const
{
    [[maybe_unused]] const ssize_t written = ::write(mFd, text.data(), text.size());
}

std::size_t ProgressBar::Columns() const
{
    constexpr std::size_t kUsual = 80;
    winsize size{};
    if (::ioctl(mFd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
        return kUsual;
    }
    return size.ws_col;
}

} // namespace ParvaneHost
