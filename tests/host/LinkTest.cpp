#include "Link.h"

#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ScriptedWatch.h"

namespace ParvaneHost {
namespace {

using std::chrono::milliseconds;

const Deadline &Long()
{
    static const Deadline deadline = Deadline::Never();
    return deadline;
}

Deadline AtOnce()
{
    return Deadline::After(milliseconds{0});
}

Link ConnectTo(const ScriptedWatch &watch)
{
    return Link::Connect(watch.Path(), Long(), {}).Value();
}

TEST(LinkTest, OneMessageIsOnePacketInBothDirections)
{
    ScriptedWatch watch;
    Link link = ConnectTo(watch);
    watch.Accept();

    EXPECT_FALSE(link.Send(Bytes{1, 2, 3}, Long(), {}));
    EXPECT_FALSE(link.Send(Bytes{4}, Long(), {}));
    watch.Send({5, 6});
    watch.Send({7});

    EXPECT_EQ(watch.Receive(), (Bytes{1, 2, 3}));
    EXPECT_EQ(watch.Receive(), (Bytes{4}));
    EXPECT_EQ(link.Receive(Long(), {}).Value(), (Bytes{5, 6}));
    EXPECT_EQ(link.Receive(Long(), {}).Value(), (Bytes{7}));
}

TEST(LinkTest, TheLargestMessagePassesAndALargerOneIsMalformed)
{
    ScriptedWatch watch;
    Link link = ConnectTo(watch);
    watch.Accept();

    EXPECT_FALSE(link.Send(Bytes(65531, 0xAB), Long(), {}));
    EXPECT_EQ(watch.Receive(), Bytes(65531, 0xAB));
    watch.Send(Bytes(65531, 0xCD));
    EXPECT_EQ(link.Receive(Long(), {}).Value(), Bytes(65531, 0xCD));
    watch.Send(Bytes(65532, 0xCD));
    const auto tooLong = link.Receive(Long(), {});

    ASSERT_FALSE(tooLong.Ok());
    EXPECT_EQ(std::get<Failure>(tooLong.GetError()).mText,
              "a packet of 65532 bytes, at most 65531 are allowed");
    watch.Send({1});
    EXPECT_EQ(link.Receive(Long(), {}).Value(), (Bytes{1})) << "the link is still good";
}

TEST(LinkTest, AnEmptyPacketIsNotTheEnd)
{
    ScriptedWatch watch;
    Link link = ConnectTo(watch);
    watch.Accept();
    watch.Send({});
    watch.Send({9});

    EXPECT_EQ(link.Receive(Long(), {}).Value(), Bytes{});
    EXPECT_EQ(link.Receive(Long(), {}).Value(), (Bytes{9}));
}

TEST(LinkTest, SilenceIsATimeout)
{
    ScriptedWatch watch;
    Link link = ConnectTo(watch);

    const auto received = link.Receive(AtOnce(), {});

    ASSERT_FALSE(received.Ok());
    EXPECT_TRUE(IsTimeout(received.GetError()));
}

TEST(LinkTest, APacketThatIsThereArrivesEvenWhenTheTimeIsUp)
{
    ScriptedWatch watch;
    Link link = ConnectTo(watch);
    watch.Accept();
    watch.Send({1});

    EXPECT_EQ(link.Receive(AtOnce(), {}).Value(), (Bytes{1}));
}

TEST(LinkTest, AnEndBeforeAnyByteMeansAnotherHost)
{
    ScriptedWatch watch;
    Link link = ConnectTo(watch);
    watch.Accept();
    watch.HangUp();

    const auto received = link.Receive(Long(), {});

    ASSERT_FALSE(received.Ok());
    EXPECT_EQ(std::get<LinkError>(received.GetError()).mReason, LinkError::Reason::AnotherHost);
    EXPECT_EQ(std::get<LinkError>(received.GetError()).mPath, watch.Path());
}

TEST(LinkTest, AnEndThatDropsOurPacketUnreadMeansAnotherHostToo)
{
    ScriptedWatch watch;
    Link link = ConnectTo(watch);
    EXPECT_FALSE(link.Send(Bytes{1}, Long(), {}));
    watch.Accept();
    watch.HangUp();

    const auto received = link.Receive(Long(), {});

    ASSERT_FALSE(received.Ok());
    EXPECT_EQ(std::get<LinkError>(received.GetError()).mReason, LinkError::Reason::AnotherHost);
    EXPECT_EQ(std::get<LinkError>(received.GetError()).mErrno, ECONNRESET);
}

TEST(LinkTest, SendingToAHostThatWasTurnedAwaySaysSoWithoutASignal)
{
    ScriptedWatch watch;
    Link link = ConnectTo(watch);
    watch.Accept();
    watch.HangUp();

    const auto error = link.Send(Bytes{1}, Long(), {});

    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(std::get<LinkError>(*error).mReason, LinkError::Reason::AnotherHost);
}

TEST(LinkTest, AnEndAfterAReplyIsTheEndOfTheLink)
{
    ScriptedWatch watch;
    Link link = ConnectTo(watch);
    watch.Accept();
    watch.Send({1});
    watch.HangUp();

    EXPECT_EQ(link.Receive(Long(), {}).Value(), (Bytes{1}));
    const auto received = link.Receive(Long(), {});

    ASSERT_FALSE(received.Ok());
    EXPECT_EQ(std::get<LinkError>(received.GetError()).mReason, LinkError::Reason::Closed);
}

TEST(LinkTest, PathsWithoutAWatchAreNamedWithTheirReason)
{
    const auto reason = [](const std::string &path) {
        const auto link = Link::Connect(path, AtOnce(), {});
        return link ? 0 : std::get<LinkError>(link.GetError()).mErrno;
    };
    std::string stale;
    {
        const ScriptedWatch watch;
        stale = watch.Path();
    }

    EXPECT_EQ(reason(stale), ENOENT);
    EXPECT_EQ(reason("/dev/null"), ENOTSOCK);
    EXPECT_EQ(reason(""), EINVAL);
    EXPECT_EQ(reason(std::string(108, 'x')), ENAMETOOLONG);
}

TEST(LinkTest, ASocketWithoutAListenerRefuses)
{
    ScriptedWatch watch;
    watch.StopListening();

    const auto link = Link::Connect(watch.Path(), Long(), {});

    ASSERT_FALSE(link.Ok());
    EXPECT_EQ(std::get<LinkError>(link.GetError()).mReason, LinkError::Reason::CannotConnect);
    EXPECT_EQ(std::get<LinkError>(link.GetError()).mErrno, ECONNREFUSED);
}

TEST(LinkTest, AWatchThatTakesNobodyIsGivenUpInTime)
{
    const ScriptedWatch watch;
    std::vector<Link> waiting;
    for (;;) { // until the listener's queue is full
        auto link = Link::Connect(watch.Path(), AtOnce(), {});
        if (!link) {
            EXPECT_EQ(std::get<LinkError>(link.GetError()).mErrno, EAGAIN);
            break;
        }
        waiting.push_back(std::move(link).Value());
        ASSERT_LT(waiting.size(), 100U);
    }

    const auto link = Link::Connect(watch.Path(), Deadline::After(milliseconds{30}), {});

    ASSERT_FALSE(link.Ok());
    EXPECT_EQ(std::get<LinkError>(link.GetError()).mErrno, EAGAIN);
}

TEST(LinkTest, AReaderThatDoesNotReadMakesSendingTimeOut)
{
    ScriptedWatch watch;
    Link link = ConnectTo(watch);
    const Bytes packet(60000, 0);
    std::optional<Error> error;
    for (int sent = 0; !error && sent < 1000; ++sent) {
        error = link.Send(packet, AtOnce(), {});
    }

    ASSERT_TRUE(error.has_value());
    EXPECT_TRUE(IsTimeout(*error));
}

TEST(LinkTest, AReadableDescriptorInterruptsEveryWait)
{
    ScriptedWatch watch;
    Link link = ConnectTo(watch);
    watch.Accept();
    watch.Send({1});
    std::array<int, 2> ends{-1, -1};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const UniqueFd readEnd(ends[0]);
    const UniqueFd writeEnd(ends[1]);
    WaitOptions options;
    options.mInterruptFd = readEnd.Get();

    EXPECT_EQ(link.Receive(Long(), options).Value(), (Bytes{1})) << "not readable yet";
    ASSERT_EQ(::write(writeEnd.Get(), "x", 1), 1);
    const auto received = link.Receive(Long(), options);
    const auto sent = link.Send(Bytes{1}, Long(), options);

    ASSERT_FALSE(received.Ok());
    EXPECT_TRUE(std::holds_alternative<Interrupted>(received.GetError()));
    ASSERT_TRUE(sent.has_value());
    EXPECT_TRUE(std::holds_alternative<Interrupted>(*sent));
}

TEST(LinkTest, TheTickComesWhileWaiting)
{
    ScriptedWatch watch;
    Link link = ConnectTo(watch);
    watch.Accept();
    int ticks = 0;
    WaitOptions options;
    options.mTickPeriod = milliseconds{1};
    options.mOnTick = [&ticks, &watch] {
        ++ticks;
        if (ticks == 3) {
            watch.Send({0x42});
        }
    };

    EXPECT_EQ(link.Receive(Long(), options).Value(), (Bytes{0x42}));
    EXPECT_EQ(ticks, 3);
}

} // namespace
} // namespace ParvaneHost
