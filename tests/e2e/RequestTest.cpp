#include "ServiceFixture.h"

using ::testing::ElementsAre;
using ::testing::Optional;

namespace {

constexpr std::chrono::milliseconds kShortWhile(200);

// Bytes 5 to 12 hold the time; the rest of a reading is known.
Bytes WithoutTime(Bytes packet)
{
    for (std::size_t i = 9; i < 13 && i < packet.size(); ++i) {
        packet[i] = 0;
    }
    return packet;
}

} // namespace

/** One request, one answer, byte by byte. */
class RequestTest : public ServiceFixture
{};

TEST_F(RequestTest, ListIsAnsweredWithAHeaderAndFourSensors)
{
    StartService();
    const Host host(LinkPath());

    EXPECT_THAT(
        host.Ask({0x01, 0x00, 0x00, 0x00}, 5),
        ElementsAre(
            Bytes{0x81, 0x80, 0x0A, 0x03, 0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x0F, 0x04},
            Bytes{0x81, 0x01, 0x15, 0x41, 0x01, 0x01, 0x40, 0x00, 0x00, 0x00, 0x3F, 0x80, 0x00,
                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x13, 0x88, 0x00, 0x00, 0x00},
            Bytes{0x81, 0x02, 0x15, 0x42, 0x02, 0x01, 0x48, 0x92, 0x7C, 0x00, 0x3F, 0x80, 0x00,
                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x93, 0xE0, 0x00, 0x01, 0x00},
            Bytes{0x81, 0x03, 0x15, 0x43, 0x03, 0x01, 0x43, 0x48, 0x00, 0x00, 0x3F, 0x80, 0x00,
                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x3A, 0x98, 0x00, 0x00, 0x00},
            Bytes{0x81, 0x04, 0x15, 0x44, 0x04, 0x01, 0x3F, 0x80, 0x00, 0x00, 0x3F, 0x80, 0x00,
                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0xE8, 0x00, 0x00, 0x00}));
}

TEST_F(RequestTest, ActivityIsAnsweredAtOnceWithTheRequestsFlags)
{
    StartService();
    const Host host(LinkPath());

    const auto answers = host.Ask({0x22, 0x00, 0x00, 0x01}, 1);

    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(WithoutTime(answers[0]),
              (Bytes{0x22, 0, 14, 1, 17, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(RequestTest, StopIsAcknowledgedInFourBytes)
{
    StartService();
    const Host host(LinkPath());

    EXPECT_THAT(host.Ask({0x14, 0x00, 0x00, 0x03}, 1), ElementsAre(Bytes{0x14, 0x02, 0x00, 0x03}));
}

TEST_F(RequestTest, PacketsThatAreNoRequestHarmNothing)
{
    StartService();
    const Host host(LinkPath());

    for (int first = 0; first < 256; ++first) {
        if ((first & 0x0F) == 0 || (first & 0x0F) > 4) {
            host.Send({static_cast<uint8_t>(first), 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
        }
    }
    host.Send({});
    host.Send({0x02});
    host.Send({0x02, 0x00, 0x00, 0x09});
    host.Send(Bytes(66000, 0x01));

    EXPECT_THAT(host.Ask({0x04, 0x00, 0x00, 0x02}, 1), ElementsAre(Bytes{0x04, 0x02, 0x00, 0x02}));
    EXPECT_EQ(host.Receive(kShortWhile), std::nullopt);
}

TEST_F(RequestTest, WornStateIsAnsweredFromTheFirstHeartRateReading)
{
    StartService({{"PARVANE_TRACE", WriteRecording({"0,72,,,,,,,,", "100,72,,,,,,,,"})}});
    const Host host(LinkPath());

    const auto answers = host.Ask({0x02, 0x00, 0x00, 0x04}, 1);

    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(WithoutTime(answers[0]),
              (Bytes{0x02, 0, 14, 4, 17, 0, 0, 0, 0, 0, 0, 0, 0, 0x3F, 0x80, 0, 0, 0}));
}

TEST_F(RequestTest, WatchOffTheWristIsNotWorn)
{
    StartService({{"PARVANE_TRACE", WriteRecording({"0,-3,,,,,,,,", "100,-3,,,,,,,,"})}});
    const Host host(LinkPath());

    const auto answers = host.Ask({0x02, 0x00, 0x00, 0x04}, 1);

    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(ValueOf(answers[0]), 0.0F);
}

TEST_F(RequestTest, WatchWithoutReadingsIsNotWornAfterThreeSeconds)
{
    StartService();
    const Host host(LinkPath());
    const auto begin = std::chrono::steady_clock::now();

    const auto answers = host.Ask({0x02, 0x00, 0x00, 0x04}, 1);

    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(ValueOf(answers[0]), 0.0F);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2990));
}

TEST_F(RequestTest, HeartRateIsTheLatestUsableReadingAfterFifteenSeconds)
{
    StartService({{"PARVANE_TRACE", WriteRecording({"0,61,,,,,,,,", "100,0,,,,,,,,"})}});
    const Host host(LinkPath());
    const auto begin = std::chrono::steady_clock::now();

    host.Send({0x12, 0x00, 0x00, 0x03});
    host.Send({0x22, 0x00, 0x00, 0x03}); // within the period: no second reply, but its flags
    const auto answer = host.Receive();

    ASSERT_TRUE(answer.has_value());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(14990));
    EXPECT_EQ(WithoutTime(*answer),
              (Bytes{0x22, 0, 14, 3, 17, 0, 0, 0, 0, 0, 0, 0, 0, 0x42, 0x74, 0, 0, 0}));
    EXPECT_EQ(host.Receive(kShortWhile), std::nullopt);
    EXPECT_TRUE(mService->HasLogged("HRM measuring is in progress : [DO NOTHING]"));
}

TEST_F(RequestTest, ActivityIsFollowedFromStartToStop)
{
    StartService(
        {{"PARVANE_TRACE", WriteRecording({"0,,,,,,,,2,", "400,,,,,,,,3,", "800,,,,,,,,1,"})}});
    const Host host(LinkPath());

    host.Send({0x13, 0x00, 0x00, 0x01, 0x00});
    std::vector<float> values;
    while (values.size() < 4) {
        const auto packet = host.Receive();
        ASSERT_TRUE(packet.has_value());
        EXPECT_EQ(packet->front(), 0x13);
        values.push_back(ValueOf(*packet));
    }
    // The first answers the start; then the recording goes round: walking, running, still.
    EXPECT_EQ(values[0], 0.0F);
    EXPECT_THAT(values[1] * 100 + values[2] * 10 + values[3],
                ::testing::AnyOf(120.0F, 201.0F, 12.0F));

    host.Send({0x14, 0x00, 0x00, 0x01});
    std::optional<Bytes> last = host.Receive();
    while (last && last->size() != 4) {
        last = host.Receive(); // updates that were under way
    }
    EXPECT_THAT(last, Optional(Bytes{0x14, 0x02, 0x00, 0x01}));
    EXPECT_EQ(host.Receive(std::chrono::milliseconds(1200)), std::nullopt);
}
