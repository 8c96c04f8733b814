#include "WebSocket.h"

#include <array>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "TestLoop.h"
#include "UniqueFd.h"

namespace Parvane {
namespace {

using namespace std::chrono_literals;

/** A WebSocket whose client is the other end of a pair of sockets. */
class WebSocketTest : public ::testing::Test, public WebSocketEvents
{
protected:
    void Open(const WebSocketTimes &times)
    {
        std::array<int, 2> fds{};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds.data()),
                  0);
        mClient.Reset(fds[0]);
        const ObjectPtr<GSocket> socket(g_socket_new_from_fd(fds[1], nullptr));
        auto stream = std::make_unique<WebStream>(ObjectPtr<GIOStream>(
            G_IO_STREAM(g_socket_connection_factory_create_connection(socket.get()))));
        mSocket = std::make_unique<WebSocket>(std::move(stream), "", FrameKind::Binary, 65531,
                                              65536, times, *this);
        mSocket->Start();
    }

    void OnMessage(std::span<const std::uint8_t> message) override
    {
        mMessages.emplace_back(message.begin(), message.end());
    }
    void OnRoom() override { ++mRooms; }
    void OnEnd() override { ++mEnds; }
    void OnClosed() override { mIsClosed = true; }

    void SendAsClient(const std::string &bytes)
    {
        ASSERT_EQ(::send(mClient.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    std::string ReceiveAsClient()
    {
        std::string bytes(1000000, '\0');
        const ssize_t count = ::recv(mClient.Get(), bytes.data(), bytes.size(), 0);
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }

    UniqueFd mClient;
    std::unique_ptr<WebSocket> mSocket;
    std::vector<std::string> mMessages;
    int mRooms = 0;
    int mEnds = 0;
    bool mIsClosed = false;
};

TEST_F(WebSocketTest, AsksASilentClientAndEndsWithoutAnAnswer)
{
    Open({50ms, 50ms, 50ms});
    std::string received;
    EXPECT_TRUE(ParvaneGateway::RunUntil([&] {
        received += ReceiveAsClient();
        return !received.empty();
    }));
    EXPECT_EQ(received, std::string("\x89\x00", 2));
    EXPECT_FALSE(mIsClosed);
    EXPECT_TRUE(ParvaneGateway::RunUntil([this] { return mIsClosed; }));
    EXPECT_EQ(mEnds, 1);
}

TEST_F(WebSocketTest, OneThatRestsSaysThatItIsThereAndJudgesNobody)
{
    Open({20ms, 20ms, 50ms});
    mSocket->Rest();
    std::string received;
    EXPECT_TRUE(ParvaneGateway::RunUntil([&] {
        received += ReceiveAsClient();
        return received.size() >= 6;
    }));
    EXPECT_EQ(received.substr(0, 6), std::string("\x89\x00\x89\x00\x89\x00", 6));
    EXPECT_FALSE(mIsClosed);
}

TEST_F(WebSocketTest, AClientThatAnswersStaysAndTheAnswerIsAwaitedNoLonger)
{
    Open({30ms, 1h, 50ms});
    int pings = 0;
    EXPECT_TRUE(ParvaneGateway::RunUntil([&] {
        if (ReceiveAsClient() == std::string("\x89\x00", 2)) {
            ++pings;
            SendAsClient(std::string("\x8A\x80\x00\x00\x00\x00", 6));
        }
        return pings == 3;
    }));
    ParvaneGateway::RunDue();
    EXPECT_FALSE(mIsClosed);
}

TEST_F(WebSocketTest, AtMost64KiBWaitForAClientThatDoesNotRead)
{
    Open({});
    const std::vector<std::uint8_t> message(1000, 5);
    std::size_t taken = 0;
    while (mSocket->Send(message)) {
        ++taken;
    }
    ParvaneGateway::RunDue();
    std::size_t received = 0; // what had left before anything was read
    while (const std::size_t size = ReceiveAsClient().size()) {
        received += size;
    }
    EXPECT_GT(taken * 1004 - received, 64000U);
    EXPECT_LE(taken * 1004 - received, 65536U);
    EXPECT_TRUE(ParvaneGateway::RunUntil([&] {
        received += ReceiveAsClient().size();
        return received == taken * 1004;
    }));
    EXPECT_TRUE(ParvaneGateway::RunUntil([this] { return mRooms == 1; }));
    EXPECT_TRUE(mSocket->Send(message));
}

TEST_F(WebSocketTest, WhileItRestsNoMessageIsRead)
{
    Open({});
    mSocket->Rest();
    SendAsClient(std::string("\x82\x81\x00\x00\x00\x00"
                             "a",
                             7));
    ParvaneGateway::RunDue();
    EXPECT_TRUE(mMessages.empty());
    mSocket->Resume();
    EXPECT_TRUE(ParvaneGateway::RunUntil([this] { return mMessages.size() == 1; }));
    EXPECT_EQ(mMessages.front(), "a");
}

TEST_F(WebSocketTest, ClosesAfterWhatWasSentAndWaitsForTheClientsClose)
{
    Open({20s, 10s, 20s});
    mSocket->Send(std::vector<std::uint8_t>{'x'});
    mSocket->Close(CloseCode::WatchAway, "why");
    EXPECT_EQ(mEnds, 1);
    EXPECT_EQ(ReceiveAsClient(), std::string("\x82\x01x\x88\x05\x11\x97why"));
    EXPECT_FALSE(mIsClosed);
    SendAsClient(std::string("\x88\x82\x00\x00\x00\x00\x11\x97", 8));
    EXPECT_TRUE(ParvaneGateway::RunUntil([this] { return mIsClosed; }));
    EXPECT_EQ(mEnds, 1);
}

TEST_F(WebSocketTest, ClosesAllTheSameWhenTheClientDoesNotAnswer)
{
    Open({20s, 10s, 30ms});
    mSocket->Close(CloseCode::GoingAway, "");
    EXPECT_TRUE(ParvaneGateway::RunUntil([this] { return mIsClosed; }));
}

TEST_F(WebSocketTest, AnswersAPingWithItsPayload)
{
    Open({});
    SendAsClient(std::string("\x89\x82\x00\x00\x00\x00hi", 8));
    std::string received;
    EXPECT_TRUE(ParvaneGateway::RunUntil([&] {
        received += ReceiveAsClient();
        return !received.empty();
    }));
    EXPECT_EQ(received, "\x8A\x02hi");
}

} // namespace
} // namespace Parvane
