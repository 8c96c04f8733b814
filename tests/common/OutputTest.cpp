#include "Output.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Pipe.h"

namespace Parvane {
namespace {

constexpr std::size_t kMoreThanAPipeHolds = 1000000;

/** A descriptor that is readable. */
class Interruption
{
public:
    Interruption() { EXPECT_EQ(::write(mPipe.mWriteEnd.Get(), "x", 1), 1); }

    int Fd() const { return mPipe.mReadEnd.Get(); }

private:
    Pipe mPipe;
};

TEST(OutputTest, AnInterruptionDoesNotMatterWhereThereIsRoom)
{
    const Pipe pipe;
    const Interruption interruption;
    EXPECT_EQ(WriteAll(pipe.mWriteEnd.Get(), "text", {interruption.Fd()}), 0);
    std::array<char, 8> read{};
    EXPECT_EQ(::read(pipe.mReadEnd.Get(), read.data(), read.size()), 4);
}

TEST(OutputTest, AnInterruptionEndsTheWaitForAReader)
{
    const Pipe pipe;
    const Interruption interruption;
    EXPECT_EQ(
        WriteAll(pipe.mWriteEnd.Get(), std::string(kMoreThanAPipeHolds, 'x'), {interruption.Fd()}),
        EINTR);
}

TEST(OutputTest, ALimitEndsTheWaitForAReader)
{
    const Pipe pipe;
    EXPECT_EQ(WriteAll(pipe.mWriteEnd.Get(), std::string(kMoreThanAPipeHolds, 'x'), {-1, 1}),
              ETIMEDOUT);
}

TEST(OutputTest, AReaderThatTakesItInTheTimeOfGraceGetsAll)
{
    constexpr int kGraceMs = 20000;
    Pipe pipe;
    const pid_t reader = ::fork();
    if (reader == 0) {
        pipe.mWriteEnd.Reset();
        std::array<char, 4096> read{};
        std::size_t count = 0;
        ssize_t size = 0;
        while ((size = ::read(pipe.mReadEnd.Get(), read.data(), read.size())) > 0) {
            count += static_cast<std::size_t>(size);
        }
        ::_exit(count == kMoreThanAPipeHolds ? 0 : 1);
    }
    ASSERT_GT(reader, 0);
    const Interruption interruption;
    EXPECT_EQ(WriteAll(pipe.mWriteEnd.Get(), std::string(kMoreThanAPipeHolds, 'x'),
                       {interruption.Fd(), -1, kGraceMs}),
              0);
    pipe.mWriteEnd.Reset();
    int status = -1;
    EXPECT_EQ(::waitpid(reader, &status, 0), reader);
    EXPECT_EQ(status, 0);
}

TEST(OutputTest, WhatCannotBeWrittenIsAnError)
{
    EXPECT_EQ(WriteAll(-1, "", {}), 0);
    const UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(WriteAll(full.Get(), "x"), ENOSPC);
    const UniqueFd readOnly(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(WriteAll(readOnly.Get(), "x"), EBADF);
}

} // namespace
} // namespace Parvane
