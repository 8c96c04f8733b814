#include "Terminal.h"

#include <pty.h>

#include <gtest/gtest.h>

#include "Pipe.h"

namespace Parvane {
namespace {

TEST(TerminalTest, OnlyATerminalThatHasANameCanEraseALine)
{
    int controllerFd = -1;
    int terminalFd = -1;
    ASSERT_EQ(::openpty(&controllerFd, &terminalFd, nullptr, nullptr, nullptr), 0);
    const UniqueFd controller(controllerFd);
    const UniqueFd terminal(terminalFd);
    EXPECT_TRUE(CanEraseLine(terminal.Get(), "xterm"));
    EXPECT_FALSE(CanEraseLine(terminal.Get(), "dumb"));
    EXPECT_FALSE(CanEraseLine(terminal.Get(), ""));
    EXPECT_FALSE(CanEraseLine(terminal.Get(), nullptr));
    EXPECT_FALSE(CanEraseLine(Pipe().mWriteEnd.Get(), "xterm"));
}

} // namespace
} // namespace Parvane
