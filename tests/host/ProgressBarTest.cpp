#include "ProgressBar.h"

#include <array>
#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "UniqueFd.h"

namespace ParvaneHost {
namespace {

using std::chrono::milliseconds;

TEST(ProgressBarTest, TheBarFillsWithTheTime)
{
    EXPECT_EQ(ProgressBar::Render("heart rate", milliseconds{0}, milliseconds{15000}, 80),
              "heart rate [..............................]  0 s of at most 15 s");
    EXPECT_EQ(ProgressBar::Render("heart rate", milliseconds{7500}, milliseconds{15000}, 80),
              "heart rate [###############...............]  7 s of at most 15 s");
    EXPECT_EQ(ProgressBar::Render("heart rate", milliseconds{15000}, milliseconds{15000}, 80),
              "heart rate [##############################] 15 s of at most 15 s");
    EXPECT_EQ(ProgressBar::Render("worn state", milliseconds{1000}, milliseconds{3000}, 80),
              "worn state [##########....................] 1 s of at most 3 s");
}

TEST(ProgressBarTest, ABarThatIsFullSaysWhatWasNotExpected)
{
    EXPECT_EQ(ProgressBar::Render("x", milliseconds{99000}, milliseconds{3000}, 80),
              "x [##############################] 99 s, longer than expected");
    EXPECT_EQ(ProgressBar::Render("x", milliseconds{-5}, milliseconds{3000}, 80),
              "x [..............................] 0 s of at most 3 s");
}

TEST(ProgressBarTest, ANarrowTerminalIsNeverFilledToItsLastColumn)
{
    EXPECT_EQ(ProgressBar::Render("heart rate", milliseconds{0}, milliseconds{15000}, 12),
              "heart rate ");
    EXPECT_EQ(ProgressBar::Render("heart rate", milliseconds{0}, milliseconds{15000}, 1), "");
    EXPECT_EQ(ProgressBar::Render("heart rate", milliseconds{0}, milliseconds{15000}, 0), "");
}

/** A pseudo-terminal of 80 columns. */
class ProgressBarOnTerminalTest : public testing::Test
{
protected:
    ProgressBarOnTerminalTest()
    {
        winsize size{};
        size.ws_col = 80;
        int controller = -1;
        int terminal = -1;
        EXPECT_EQ(::openpty(&controller, &terminal, nullptr, nullptr, &size), 0);
        mController = Parvane::UniqueFd(controller);
        mTerminal = Parvane::UniqueFd(terminal);
    }

    /** What was written to the terminal since the last call; a mark behind it says where it ends. */
    std::string Shown()
    {
        constexpr char kMark = '|';
        EXPECT_EQ(::write(mTerminal.Get(), &kMark, 1), 1);
        std::string text;
        char next = 0;
        while (::read(mController.Get(), &next, 1) == 1 && next != kMark) {
            text += next;
        }
        return text;
    }

    Parvane::UniqueFd mController;
    Parvane::UniqueFd mTerminal;
};

TEST_F(ProgressBarOnTerminalTest, ABarIsDrawnOverItselfAndErasedAtTheEnd)
{
    {
        ProgressBar bar(mTerminal.Get(), "worn state", std::chrono::hours{1});
        EXPECT_EQ(Shown(), "");
        bar.Update();
        EXPECT_EQ(Shown(),
                  "\r\033[Kworn state [..............................]    0 s of at most 3600 s");
        bar.Update();
        EXPECT_EQ(Shown(), "") << "nothing has changed";
    }
    EXPECT_EQ(Shown(), "\r\033[K");
}

TEST_F(ProgressBarOnTerminalTest, ABarThatWasNeverDrawnOrWasRemovedLeavesNothingToErase)
{
    {
        ProgressBar bar(mTerminal.Get(), "worn state", std::chrono::hours{1});
    }
    EXPECT_EQ(Shown(), "");
    {
        ProgressBar bar(mTerminal.Get(), "worn state", std::chrono::hours{1});
        bar.Update();
        bar.Remove();
        Shown();
    }
    EXPECT_EQ(Shown(), "");
}

} // namespace
} // namespace ParvaneHost
