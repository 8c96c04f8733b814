#include "WebRelay.h"

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "AcceptKey.h"
#include "TestLoop.h"

namespace ParvaneHost {
namespace {

using Parvane::ObjectPtr;
using Parvane::UniqueFd;
using ParvaneGateway::RunDue;
using ParvaneGateway::RunUntil;

/** A relay, and the gateway that it connects to: the server's end of its WebSocket. */
class WebRelayTest : public ::testing::Test, private Parvane::WebSocketEvents
{
protected:
    void SetUp() override
    {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        mListener.Reset(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        auto *const plain = reinterpret_cast<sockaddr *>(&address);
        ASSERT_EQ(::bind(mListener.Get(), plain, size), 0);
        ASSERT_EQ(::listen(mListener.Get(), 1), 0);
        ASSERT_EQ(::getsockname(mListener.Get(), plain, &size), 0);
        auto target =
            ParseWebAddress("ws://127.0.0.1:" + std::to_string(ntohs(address.sin_port))).Value();
        target.mToken = "secret";
        mRelay =
            std::make_unique<WebRelay>(target, WebRelay::Handlers{[this] { mIsOpen = true; },
                                                                  [this](const LinkError &error) {
                                                                      mEnd = error;
                                                                      mRelay.reset();
                                                                  }});
        mUser = mRelay->TakeSocket();
    }

    /** Answers the request for a link. */
    void Accept()
    {
        UniqueFd client;
        ASSERT_TRUE(RunUntil([&] {
            client.Reset(
                ::accept4(mListener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
            return client.Get() >= 0;
        }));
        std::string head;
        ASSERT_TRUE(RunUntil([&] {
            std::array<char, 1000> buffer{};
            const ssize_t count = ::recv(client.Get(), buffer.data(), buffer.size(), 0);
            head.append(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
            return head.ends_with("\r\n\r\n");
        }));
        const std::string name = "Sec-WebSocket-Key: ";
        const std::string key = head.substr(head.find(name) + name.size(), 24);
        const ObjectPtr<GSocket> socket(g_socket_new_from_fd(client.Release(), nullptr));
        g_socket_set_blocking(socket.get(), FALSE);
        auto stream = std::make_unique<Parvane::WebStream>(ObjectPtr<GIOStream>(
            G_IO_STREAM(g_socket_connection_factory_create_connection(socket.get()))));
        stream->Write("HTTP/1.1 101 x\r\nSec-WebSocket-Accept: " + Parvane::AcceptOf(key) +
                      "\r\nSec-WebSocket-Protocol: parvane.link.v1\r\n\r\n");
        Parvane::WebSocketEvents &events = *this;
        mServer =
            std::make_unique<Parvane::WebSocket>(std::move(stream), "", Parvane::FrameKind::Binary,
                                                 65531, 65536, Parvane::WebSocketTimes(), events);
        mServer->Start();
    }

    void Open()
    {
        ASSERT_NO_FATAL_FAILURE(Accept());
        ASSERT_TRUE(RunUntil([this] { return mIsOpen; }));
    }

    /** Packets of 1000 bytes that begin with their number. */
    static std::vector<std::uint8_t> Packet(std::uint32_t number)
    {
        std::vector<std::uint8_t> packet(1000);
        std::memcpy(packet.data(), &number, sizeof number);
        return packet;
    }

    static std::uint32_t NumberOf(std::span<const std::uint8_t> packet)
    {
        std::uint32_t number = 0;
        EXPECT_EQ(packet.size(), 1000U);
        std::memcpy(&number, packet.data(), sizeof number);
        return number;
    }

    bool SendAsUser(std::uint32_t number) const
    {
        const auto packet = Packet(number);
        return ::send(mUser.Get(), packet.data(), packet.size(), MSG_NOSIGNAL) >= 0;
    }

    /** The number of the next packet; -1 for none now, -2 at the end. */
    std::int64_t ReceiveAsUser() const
    {
        std::vector<std::uint8_t> packet(2000);
        const ssize_t count = ::recv(mUser.Get(), packet.data(), packet.size(), 0);
        if (count <= 0) {
            return count == 0 ? -2 : -1;
        }
        return NumberOf(std::span(packet).first(static_cast<std::size_t>(count)));
    }

    void OnMessage(std::span<const std::uint8_t> message) override
    {
        EXPECT_EQ(NumberOf(message), mReceived++);
    }
    void OnRoom() override {}
    void OnEnd() override {}
    void OnClosed() override { mHasServerEnded = true; }

    UniqueFd mListener;
    std::unique_ptr<WebRelay> mRelay;
    std::unique_ptr<Parvane::WebSocket> mServer;
    UniqueFd mUser;
    bool mIsOpen = false;
    bool mHasServerEnded = false;
    std::optional<LinkError> mEnd;
    std::uint32_t mReceived = 0;
};

/** What both sides, the kernel's buffers of the network between them included, hold of a side that does not read. */
constexpr std::uint32_t kMostPackets = 30000;

TEST_F(WebRelayTest, AGatewayThatDoesNotReadHoldsTheUserUp)
{
    ASSERT_NO_FATAL_FAILURE(Open());
    mServer->Rest();
    std::uint32_t sent = 0;
    // Full for good: no more is taken, whatever the loop does.
    for (int tries = 0; tries < 200 && sent < kMostPackets; ++tries) {
        while (sent < kMostPackets && SendAsUser(sent)) {
            ++sent;
            tries = 0;
        }
        RunDue();
    }
    ASSERT_GT(sent, 64U);
    ASSERT_LT(sent, kMostPackets);
    mServer->Resume();
    mUser.Reset(); // what was sent before arrives all the same
    EXPECT_TRUE(RunUntil([&] { return mHasServerEnded; }));
    EXPECT_EQ(mReceived, sent);
    EXPECT_EQ(mServer->EndCode(), Parvane::CloseCode::Normal);
    EXPECT_TRUE(RunUntil([&] { return mEnd.has_value(); }));
}

TEST_F(WebRelayTest, AUserWhoDoesNotReadHoldsTheGatewayUp)
{
    ASSERT_NO_FATAL_FAILURE(Open());
    std::uint32_t sent = 0;
    for (int tries = 0; tries < 200 && sent < kMostPackets; ++tries) {
        while (sent < kMostPackets && mServer->Send(Packet(sent))) {
            ++sent;
            tries = 0;
        }
        RunDue();
    }
    ASSERT_GT(sent, 64U);
    ASSERT_LT(sent, kMostPackets);
    mServer->Close(Parvane::CloseCode::TokenEnded, "");
    std::uint32_t received = 0;
    EXPECT_TRUE(RunUntil([&] {
        std::int64_t number = 0;
        while ((number = ReceiveAsUser()) >= 0) {
            EXPECT_EQ(number, received++);
        }
        return number == -2;
    }));
    EXPECT_EQ(received, sent);
    ASSERT_TRUE(mEnd);
    EXPECT_TRUE(mEnd->mIsFinal);
}

TEST_F(WebRelayTest, WhatWasSentBeforeTheLinkWasThereGoesFirst)
{
    EXPECT_TRUE(SendAsUser(0));
    ASSERT_NO_FATAL_FAILURE(Open());
    EXPECT_TRUE(SendAsUser(1));
    EXPECT_TRUE(RunUntil([this] { return mReceived == 2; }));
}

TEST_F(WebRelayTest, ARefusedPhoneIsNeverOpen)
{
    ASSERT_NO_FATAL_FAILURE(Accept());
    mServer->Close(Parvane::CloseCode::AnotherPhone, "");
    EXPECT_TRUE(RunUntil([&] { return mEnd.has_value(); }));
    EXPECT_EQ(mEnd->mReason, LinkError::Reason::AnotherHost);
    EXPECT_FALSE(mIsOpen);
    EXPECT_EQ(ReceiveAsUser(), -2);
}

TEST_F(WebRelayTest, AConnectionThatBreaksEndsTheLink)
{
    ASSERT_NO_FATAL_FAILURE(Open());
    mServer.reset();
    EXPECT_TRUE(RunUntil([&] { return mEnd.has_value(); }));
    EXPECT_EQ(mEnd->mReason, LinkError::Reason::Closed);
    EXPECT_FALSE(mEnd->mIsFinal);
}

TEST_F(WebRelayTest, ItMayGoAtAnyMoment)
{
    mRelay.reset();
    RunDue();
    EXPECT_EQ(ReceiveAsUser(), -2);
    EXPECT_FALSE(mEnd);
}

} // namespace
} // namespace ParvaneHost
