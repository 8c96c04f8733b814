#include "UnixSocket.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Pipe.h"

namespace Parvane {
namespace {

using std::chrono::milliseconds;

class UnixSocketTest : public testing::Test
{
public:
    ~UnixSocketTest() override { std::filesystem::remove_all(mFolder); }

protected:
    UnixSocketTest()
    {
        EXPECT_NE(::mkdtemp(mFolder.data()), nullptr);
        mPath = mFolder + "/socket";
    }

    /** Listens at mPath, for one host that has not been accepted. */
    void Listen()
    {
        sockaddr_un address{};
        ASSERT_EQ(MakeSocketAddress(mPath, address), 0);
        mListener.Reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        ASSERT_EQ(
            ::bind(mListener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address),
            0);
        ASSERT_EQ(::listen(mListener.Get(), 0), 0);
    }

    [[nodiscard]] int Connect(milliseconds time = milliseconds{0}, const WaitOptions &options = {})
    {
        return ConnectToSocket(mPath, Deadline::After(time), options, mSocket);
    }

    std::string mFolder = std::filesystem::temp_directory_path() / "parvane-common.XXXXXX";
    std::string mPath;
    UniqueFd mListener;
    UniqueFd mSocket;
};

TEST_F(UnixSocketTest, APathIsAsLongAsAnAddressHolds)
{
    sockaddr_un address{};
    EXPECT_EQ(MakeSocketAddress("", address), EINVAL);
    EXPECT_EQ(MakeSocketAddress(std::string(LongestSocketPath() + 1, 'x'), address), ENAMETOOLONG);
    EXPECT_EQ(MakeSocketAddress(std::string(LongestSocketPath(), 'x'), address), 0);
    EXPECT_EQ(std::string(std::begin(address.sun_path)), std::string(LongestSocketPath(), 'x'));
    EXPECT_EQ(MakeSocketAddress("/a", address), 0);
    EXPECT_EQ(std::string(std::begin(address.sun_path)), "/a");
    EXPECT_EQ(address.sun_family, AF_UNIX);
}

TEST_F(UnixSocketTest, SomebodyWhoListensIsReached)
{
    Listen();
    EXPECT_EQ(Connect(), 0);
    EXPECT_EQ(::send(mSocket.Get(), "x", 1, MSG_NOSIGNAL), 1);
}

TEST_F(UnixSocketTest, NobodyIsNamed)
{
    EXPECT_EQ(Connect(), ENOENT);
    Listen();
    mListener.Reset();
    EXPECT_EQ(Connect(), ECONNREFUSED);
    mPath = mFolder;
    EXPECT_EQ(Connect(), ENOTSOCK) << "a folder";
    mPath.clear();
    EXPECT_EQ(Connect(), EINVAL);
    EXPECT_FALSE(mSocket);
}

TEST_F(UnixSocketTest, AFullQueueIsWaitedForUntilTheDeadlineOrAnInterruption)
{
    Listen();
    UniqueFd first;
    ASSERT_EQ(ConnectToSocket(mPath, Deadline::Never(), {}, first), 0);
    EXPECT_EQ(Connect(milliseconds{30}), EAGAIN);

    const Pipe pipe;
    ASSERT_EQ(::write(pipe.mWriteEnd.Get(), "x", 1), 1);
    WaitOptions options;
    options.mInterruptFd = pipe.mReadEnd.Get();
    EXPECT_EQ(Connect(milliseconds{20000}, options), EINTR);

    options.mInterruptFd = -1;
    options.mOnTick = [this] { UniqueFd(::accept(mListener.Get(), nullptr, nullptr)); };
    options.mTickPeriod = milliseconds{1};
    EXPECT_EQ(Connect(milliseconds{20000}, options), 0) << "there is room again";
}

} // namespace
} // namespace Parvane
