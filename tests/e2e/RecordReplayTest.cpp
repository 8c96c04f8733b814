#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Requests.h"
#include "ServiceFixture.h"

using Parvane::FlaggedRequest::kMeasureHeartRate;
using Parvane::FlaggedRequest::kStartActivity;
using Parvane::Request::kMeasureSteps;
using ::testing::ElementsAre;
using ::testing::SizeIs;

namespace {

using namespace std::chrono_literals;

// The wire ids of the sensors.
constexpr uint8_t kActivity = 1;
constexpr uint8_t kSteps = 2;
constexpr uint8_t kHeartRate = 3;

const Bytes kStopSteps = {0x04, 0x00, 0x00, kSteps};

/** The command that records; empty when it is not part of this build. */
std::string WatchProgram()
{
#ifdef PARVANE_WATCH_PROGRAM
    return PARVANE_WATCH_PROGRAM;
#else
    return {};
#endif
}

/** A reading without its time, which differs from run to run. */
Bytes WithoutTime(Bytes packet)
{
    std::fill(packet.begin() + 5, packet.begin() + 13, uint8_t{0});
    return packet;
}

/** A time zone in which it is noon: no day of the wearer ends during the test. */
std::string ZoneAtNoon()
{
    const std::time_t now = std::time(nullptr);
    std::tm utc = {};
    gmtime_r(&now, &utc);
    return "NOON" + std::to_string(utc.tm_hour - 12);
}

/** The rows of a recording without their times. */
std::vector<std::string> RowsOf(const std::string &path)
{
    std::vector<std::string> rows;
    std::istringstream text(ReadFile(path));
    for (std::string line; std::getline(text, line);) {
        if (!line.starts_with('#') && !line.starts_with("t_ms")) {
            rows.push_back(line.substr(line.find(',')));
        }
    }
    return rows;
}

std::vector<Bytes> FirstOf(std::vector<Bytes> packets, std::size_t count)
{
    packets.resize(std::min(packets.size(), count));
    return packets;
}

} // namespace

/**
 * What the host hears of a run, and of the replay of the recording that was made of that run.
 *
 * The packets of each sensor are compared by themselves, for how those of different sensors lie
 * between each other is a matter of microseconds; and as far as both runs have them, for the host
 * does not end both at the same moment.
 */
class RecordReplayTest : public ServiceFixture
{
protected:
    using Readings = std::map<uint8_t, std::vector<Bytes>>;

    void SetUp() override
    {
        if (WatchProgram().empty()) {
            GTEST_SKIP() << "parvane-watch is not part of this build";
        }
    }

    /** Opts in to steps on a watch without sensors, and keeps that state for both runs. */
    void OptInToSteps()
    {
        StartService();
        {
            const Host host(LinkPath());
            host.Send(kMeasureSteps);
            // Answered in turn: the request before it has been served, too.
            ASSERT_THAT(host.Ask(kStopSteps, 1), ElementsAre(SizeIs(4)));
        }
        ASSERT_EQ(StopService(), 0);
        std::filesystem::copy(mStateDirectory, OtherState(),
                              std::filesystem::copy_options::recursive);
    }

    /** Plays a recording from the state that mStateDirectory has. */
    void StartRun(const std::string &recording, const std::string &speed, const std::string &loop)
    {
        StartService({{"PARVANE_TRACE", recording},
                      {"PARVANE_SPEED", speed},
                      {"PARVANE_LOOP", loop},
                      {"TZ", ZoneAtNoon()}});
    }

    /** Begins to record the running service; returns when every reading from now on is recorded. */
    void StartRecording()
    {
        const std::filesystem::path socket = mRunDirectory / "control.sock";
        ASSERT_TRUE(Eventually([&] { return std::filesystem::exists(socket); }));
        mRecorder = std::make_unique<Process>(std::vector<std::string>{WatchProgram(), "--socket",
                                                                       socket.string(), "record",
                                                                       RecordingPath()},
                                              BaseEnvironment(), mFolder.Path());
        ASSERT_TRUE(Eventually([&] {
            return ReadFile(RecordingPath()).find("\nt_ms,") != std::string::npos;
        })) << mRecorder->StandardError();
    }

    /** Ends the recording and the run, and makes the next run one from the state before this. */
    void EndRecording()
    {
        mRecorder->Signal(SIGTERM);
        ASSERT_TRUE(mRecorder->WaitForEnd().has_value());
        ASSERT_EQ(StopService(), 0);
        mStateDirectory = OtherState();
    }

    /** Receives until `isEnough`; the readings without their time, by their sensor. */
    template <typename Enough>
    static Readings Collect(const Host &host, Enough isEnough)
    {
        Readings readings;
        while (!isEnough(readings)) {
            const auto packet = host.Receive();
            if (!packet || packet->size() != 18) {
                ADD_FAILURE() << "no reading";
                break;
            }
            readings[(*packet)[3]].push_back(WithoutTime(*packet));
        }
        return readings;
    }

    /** A host that follows the steps and the activity, and measures the heart rate meanwhile. */
    static Readings FollowAll(const Host &host)
    {
        host.Send(kStartActivity);
        Readings readings = Collect(host, [](Readings &all) { return !all[kSteps].empty(); });
        // From the first steps on, so that the heart rate is measured over the same rows each time.
        host.Send(kMeasureHeartRate);
        Readings more = Collect(host, [](Readings &all) { return !all[kHeartRate].empty(); });
        for (auto &[sensor, packets] : more) {
            std::move(packets.begin(), packets.end(), std::back_inserter(readings[sensor]));
        }
        return readings;
    }

    /** A host that starts the activity and awaits `count` packets of it. */
    static std::vector<Bytes> FollowActivity(const Host &host, std::size_t count)
    {
        host.Send(kStartActivity);
        return Collect(
            host, [count](Readings &all) { return all[kActivity].size() >= count; })[kActivity];
    }

    /** A host that awaits `count` packets of the steps, which it has opted in to before. */
    static std::vector<Bytes> FollowSteps(const Host &host, std::size_t count)
    {
        return Collect(host,
                       [count](Readings &all) { return all[kSteps].size() >= count; })[kSteps];
    }

    std::string RecordingPath() const { return (mFolder.Path() / "recorded.csv").string(); }
    std::filesystem::path OtherState() const { return mFolder.Path() / "other-state"; }

    std::unique_ptr<Process> mRecorder;
};

TEST_F(RecordReplayTest, StepsAndHeartRateOfTheBundledRecordingComeBackTheSame)
{
    // A row every two seconds: the 15 seconds of a measurement that begins at a row end halfway
    // between two others. The first steps come after four: until then the recording has begun, and
    // in the second run the host has connected.
    OptInToSteps();
    StartRun(PARVANE_RECORDING, "0.5", "0");
    Readings original;
    {
        const Host host(LinkPath());
        StartRecording();
        ASSERT_EQ(host.Receive(0ms), std::nullopt) << "the recording has begun too late";
        original = FollowAll(host);
    }
    EndRecording();

    StartRun(RecordingPath(), "1", "0");
    const Host host(LinkPath());
    Readings replayed = FollowAll(host);

    const std::size_t steps = std::min(original[kSteps].size(), replayed[kSteps].size());
    EXPECT_GE(steps, 7U);
    EXPECT_EQ(FirstOf(replayed[kSteps], steps), FirstOf(original[kSteps], steps));
    EXPECT_GT(ValueOf(original[kSteps].back()), 0.0F);
    EXPECT_THAT(original[kHeartRate], SizeIs(1));
    EXPECT_GT(ValueOf(original[kHeartRate].front()), 0.0F);
    EXPECT_EQ(replayed[kHeartRate], original[kHeartRate]);
    EXPECT_THAT(original[kActivity], SizeIs(1)); // what answers the start
    EXPECT_EQ(replayed[kActivity], original[kActivity]);
}

TEST_F(RecordReplayTest, ActivityOfTheBundledRecordingComesBackTheSame)
{
    // Running, once in each round of 1.4 seconds. The replay has at least two of the three updates,
    // also when the host connects to it after the first one.
    StartRun(PARVANE_RECORDING, "2000", "1");
    std::filesystem::create_directory(OtherState());
    std::vector<Bytes> original;
    {
        const Host host(LinkPath());
        StartRecording();
        original = FollowActivity(host, 4);
    }
    EndRecording();

    StartRun(RecordingPath(), "1", "0");
    const Host host(LinkPath());
    const std::vector<Bytes> replayed = FollowActivity(host, 3);

    EXPECT_EQ(ValueOf(original.back()), 2.0F);
    EXPECT_EQ(replayed, FirstOf(original, 3));
}

TEST_F(RecordReplayTest, ChangesOfTheActivityComeBackInTheirOrder)
{
    const std::string recording =
        WriteRecording({"3000,,,,,,,,2,", "3100,,,,,,,,3,", "3200,,,,,,,,1,", "3300,,,,,,,,3,",
                        "3300,,,,,,,,2,", "3400,,,,,,,,0,", "3500,,,,,,,,2,", "3600,,,,,,,,3,"});
    constexpr std::size_t kPackets = 8; // the answer and the updates, but for 0, which nobody hears
    StartRun(recording, "1", "0");
    std::filesystem::create_directory(OtherState());
    std::vector<Bytes> original;
    {
        const Host host(LinkPath());
        StartRecording();
        original = FollowActivity(host, kPackets);
    }
    EndRecording();

    StartRun(RecordingPath(), "1", "0");
    const Host host(LinkPath());
    const std::vector<Bytes> replayed = FollowActivity(host, kPackets);

    std::vector<float> values;
    values.reserve(original.size());
    for (const Bytes &packet : original) {
        values.push_back(ValueOf(packet));
    }
    EXPECT_THAT(values, ElementsAre(0.0F, 1.0F, 2.0F, 0.0F, 2.0F, 1.0F, 1.0F, 2.0F));
    EXPECT_EQ(replayed, original);
}

TEST_F(RecordReplayTest, ResetsAndForgottenValuesOfThePedometerComeBackTheSame)
{
    const std::string recording =
        WriteRecording({"3000,,5000,,,100,,4,,,", "3100,,5010,,,110,,,,,", "3200,,5020,,,,,,,,2",
                        "3300,,5030,,,120,,,,,", "3400,,7,,,2,,,,,1", "3500,,9,,,3,,5,,,"},
                       ",restart");
    constexpr std::size_t kPackets = 6;
    OptInToSteps();
    StartRun(recording, "1", "0");
    std::vector<Bytes> original;
    {
        const Host host(LinkPath());
        StartRecording();
        ASSERT_EQ(host.Receive(0ms), std::nullopt) << "the recording has begun too late";
        original = FollowSteps(host, kPackets);
    }
    EndRecording();
    EXPECT_THAT(RowsOf(RecordingPath()),
                ElementsAre(",,5000,,,100,,4,,,,,,", ",,5010,,,110,,4,,,,,,", ",,5020,,,,,,,,,,,2",
                            ",,5030,,,120,,,,,,,,", ",,7,,,2,,,,,,,,1", ",,9,,,3,,5,,,,,,"));

    StartRun(RecordingPath(), "1", "0");
    const Host host(LinkPath());
    EXPECT_EQ(FollowSteps(host, kPackets), original);
    EXPECT_GT(ValueOf(original.back()), 0.0F);
}
