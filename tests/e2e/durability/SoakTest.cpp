#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "PedometerModel.h"
#include "Requests.h"
#include "ServiceFixture.h"
#include "Setting.h"
#include "StoredSteps.h"
#include "WatchLife.h"
#include "WatchWorld.h"

// A watch's life on the real runtime, at speed: WatchClock.c tells the service the time, the zone and
// the pedometer's counts, and lets its timers run a thousand times faster. PARVANE_SOAK_DAYS and
// PARVANE_SOAK_MOMENTS, the readings of a day, make it longer; PARVANE_SOAK_SEED makes it another.

using Parvane::PedometerModel;
using Parvane::Setting;
using Parvane::WatchEvent;
using Parvane::WatchLife;
using Parvane::WatchMoment;
using Parvane::WatchZone;
using Parvane::Request::kActivityStopped;
using Parvane::Request::kListSensors;
using Parvane::Request::kMeasureHeartRate;
using Parvane::Request::kMeasureSteps;
using Parvane::Request::kMeasureWearState;
using Parvane::Request::kStartActivity;
using Parvane::Request::kStopActivity;

namespace {

/** The database, its log of 512 KiB at most with the log's index, and a dozen small files. */
constexpr uintmax_t kFilesKiB = 1024;
/** What the service may log, a day's moments taken together. */
constexpr uintmax_t kLogBytesOfAMoment = 4096;
/**
 * KiB of its own memory that may have come after the first day: less than what the C library asks
 * the system for at a time, 132 KiB, so that one block that is lost with each reading shows.
 */
constexpr int64_t kOwnKiB = 64;
/**
 * The same for all that is resident, where the first day has had all that ever happens; else also
 * the code that begins the database's log anew, and that log itself, have yet to be seen.
 */
constexpr int64_t kResidentKiB = 128;
constexpr int64_t kResidentKiBOfAShortDay = 512;
/** With so many moments a day the log has begun anew on the first one. */
constexpr int kMomentsOfALongDay = 200;

/** An instrumented service keeps memory of its own. */
constexpr bool kIsInstrumented = SOAK_IN_INSTRUMENTED_PROGRAM;

/** Whether the system knows the zones as the tests do; the fixture's process keeps its own zone. */
bool KnowsZones()
{
    for (const WatchZone *const zone : {&WatchZone::kFiji, &WatchZone::kKolkata}) {
        if (!std::filesystem::exists(std::string("/usr/share/zoneinfo/") + zone->mName)) {
            return false;
        }
    }
    return true;
}

/** What the service has of the machine. */
struct Footprint
{
    int64_t mResidentKiB = 0;
    int64_t mOwnKiB = 0;
    std::size_t mDescriptors = 0;
    std::size_t mFiles = 0;
    uintmax_t mFileBytes = 0;
};

std::ostream &operator<<(std::ostream &stream, const Footprint &footprint)
{
    return stream << footprint.mResidentKiB << " KiB resident, " << footprint.mOwnKiB
                  << " KiB of it its own, " << footprint.mDescriptors << " descriptors, "
                  << footprint.mFiles << " files of " << footprint.mFileBytes / 1024 << " KiB";
}

} // namespace

class RuntimeSoakTest : public ServiceFixture
{
protected:
    void SetUp() override
    {
        if (!KnowsZones()) {
            GTEST_SKIP() << "the time zones of Fiji and India are not installed here";
        }
        const std::filesystem::path path = mFolder.Path() / "world";
        WriteFile(path, std::string(sizeof(WatchWorld), '\0'));
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        void *const mapped =
            mmap(nullptr, sizeof(WatchWorld), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        ASSERT_NE(mapped, MAP_FAILED);
        mWorld = static_cast<WatchWorld *>(mapped);
    }

    void TearDown() override
    {
        if (mWorld != nullptr) {
            munmap(mWorld, sizeof(WatchWorld));
        }
    }

    /** The service, in the world of the first moment, and the host's first wish for steps. */
    void Begin(const WatchMoment &moment)
    {
        SetWorld(moment);
        WriteFile(mFolder.Path() / "manual.conf",
                  "[sensors]\nheart_rate=manual\npedometer=manual\nactivity=manual\n");
        StartService(
            {{"PARVANE_PLATFORM_CONF", mFolder.Path() / "manual.conf"},
             {"WATCH_WORLD", mFolder.Path() / "world"},
             {"LD_PRELOAD", WATCH_CLOCK_LIBRARY},
             {"ASAN_OPTIONS", BaseEnvironment()["ASAN_OPTIONS"] + ":verify_asan_link_order=0"}});
        mControl = std::make_unique<Host>(mRunDirectory / "control.sock");
        Connect();
        Tell(R"({"request":"set","item":"heart_rate","value":72})");
        mHost->Send(kMeasureSteps);
        // The count that the subscription begins with, and the answer half a second later.
        ASSERT_NO_FATAL_FAILURE(TakeSteps(moment));
        ASSERT_NO_FATAL_FAILURE(TakeSteps(moment));
    }

    void SetWorld(const WatchMoment &moment)
    {
        const Parvane::PedometerCounts &counts = moment.mCounts;
        if (std::string(mWorld->mZone) != moment.mZone->mName) {
            std::string(moment.mZone->mName).copy(mWorld->mZone, sizeof mWorld->mZone - 1);
            mWorld->mZone[std::string(moment.mZone->mName).size()] = '\0';
            ++mWorld->mZoneChanges;
        }
        mWorld->mClock = moment.mClock;
        const std::array<double, WATCH_COUNTS> values = {counts.mTotalSteps, counts.mRunSteps,
                                                         counts.mWalkSteps,  counts.mDistance,
                                                         counts.mCalories,   counts.mSpeed};
        std::copy(values.begin(), values.end(), mWorld->mCounts);
        mNow = moment;
    }

    void Live(const WatchMoment &moment)
    {
        ASSERT_NO_FATAL_FAILURE(Happen(moment.mEvent));
        SetWorld(moment);
        // A reading, whose counts come from the world.
        ASSERT_NO_FATAL_FAILURE(Tell(R"({"request":"set","item":"steps","add":0})"));
        ASSERT_NO_FATAL_FAILURE(TakeSteps(moment));
    }

    /** Asks through the control socket, and sees to it that it has been done. */
    void Tell(const std::string &request) const
    {
        mControl->Send(Bytes(request.begin(), request.end()));
        const auto reply = mControl->Receive();
        ASSERT_TRUE(reply.has_value());
        ASSERT_NE(std::string(reply->begin(), reply->end()).find("\"ok\":true"), std::string::npos);
    }

    void Connect()
    {
        if (!mHost) {
            mHost = std::make_unique<Host>(LinkPath());
            // Steps are sent to it once the service knows of it.
            ASSERT_EQ(mHost->Ask(kStopActivity, 1).size(), 1U);
        }
    }

    /** Takes packets until one is what is waited for. */
    template <typename Condition>
    Bytes Await(Condition condition) const
    {
        while (auto packet = mHost->Receive()) {
            if (condition(*packet)) {
                return *packet;
            }
        }
        return {};
    }

    /** The service has had a reading: what the host is sent of it, if there is one, is right. */
    void TakeSteps(const WatchMoment &moment)
    {
        mModel.Take(moment.mCounts, moment.mClock, *moment.mZone);
        if (!mHost) {
            return;
        }
        const Bytes packet = Await([](const Bytes &bytes) { return IsReadingOf(bytes, 2); });
        ASSERT_EQ(packet.size(), kReadingSize);
        ASSERT_EQ(ValueOf(packet), static_cast<float>(mModel.TotalSteps()));
        ASSERT_EQ(TimeOf(packet), static_cast<uint32_t>(mModel.Time() * 1000));
    }

    void Happen(WatchEvent event)
    {
        switch (event) {
        case WatchEvent::ListIsAsked:
        case WatchEvent::StepsAreAsked:
        case WatchEvent::HeartRateIsMeasured:
        case WatchEvent::WearIsAsked:
        case WatchEvent::ActivityIsFollowed:
            ASSERT_NO_FATAL_FAILURE(Connect());
            ASSERT_NO_FATAL_FAILURE(Ask(event));
            break;
        case WatchEvent::HostVanishes:
            ASSERT_NO_FATAL_FAILURE(Connect());
            mHost->Send(kMeasureHeartRate);
            mHost->Send(kStartActivity);
            mHost->Send(kListSensors);
            mHost.reset();
            break;
        case WatchEvent::HostLeaves:
            mHost.reset();
            break;
        case WatchEvent::LinkDrops:
            Tell(R"({"request":"link","state":"down"})");
            mHost.reset();
            Tell(R"({"request":"link","state":"up"})");
            break;
        case WatchEvent::None:
        case WatchEvent::CountersReset:
        case WatchEvent::ClockGoesBack:
        case WatchEvent::ClockGoesOn:
        case WatchEvent::ClockIsSetRight:
        case WatchEvent::ZoneChanges:
            break; // all of it shows in the reading
        }
    }

    /**
     * Whether a measurement is answered. Which value it has is the machine's affair, 15 s pass in
     * 15 ms; and one that is asked for too soon after another is not made, so it is asked for again.
     */
    bool IsMeasured(const Bytes &request) const
    {
        return Eventually([&] {
            mHost->Send(request);
            while (const auto packet = mHost->Receive(std::chrono::milliseconds(50))) {
                if (IsReadingOf(*packet, request.back())) {
                    return true;
                }
            }
            return false;
        });
    }

    void Ask(WatchEvent event)
    {
        if (event == WatchEvent::ListIsAsked) {
            mHost->Send(kListSensors);
            for (int packets = 0; packets < 5; ++packets) {
                const Bytes packet = Await([](const Bytes &bytes) { return bytes[0] == 0x81; });
                ASSERT_EQ(packet.size(), packets == 0 ? 13U : 25U);
            }
        } else if (event == WatchEvent::StepsAreAsked) {
            mHost->Send(kMeasureSteps);
            ASSERT_NO_FATAL_FAILURE(TakeSteps(mNow));
        } else if (event == WatchEvent::HeartRateIsMeasured) {
            EXPECT_TRUE(IsMeasured(kMeasureHeartRate));
        } else if (event == WatchEvent::WearIsAsked) {
            EXPECT_TRUE(IsMeasured(kMeasureWearState));
        } else {
            mHost->Send(kStartActivity);
            Tell(R"({"request":"set","item":"activity","value":"walking"})");
            mHost->Send(kStopActivity);
            ASSERT_EQ(Await([](const Bytes &bytes) { return bytes == kActivityStopped; }).size(),
                      4U);
        }
    }

    /** What is stored is what the rules give, whole. */
    void CheckStored() const
    {
        const StoredSteps stored = StoredSteps::Read(mStateDirectory, mFolder.Path());
        ASSERT_EQ(stored.mIntegrity, "ok");
        ASSERT_EQ(stored.mText, mModel.Text());
        ASSERT_EQ(stored.mTime, mModel.Time());
    }

    Footprint Measure() const
    {
        Footprint footprint;
        const std::string process = "/proc/" + std::to_string(mService->Pid());
        std::istringstream status(ReadFile(process + "/status"));
        for (std::string word; status >> word;) {
            if (word == "VmRSS:") {
                status >> footprint.mResidentKiB;
            } else if (word == "RssAnon:") {
                status >> footprint.mOwnKiB;
            }
        }
        for ([[maybe_unused]] const auto &descriptor :
             std::filesystem::directory_iterator(process + "/fd")) {
            ++footprint.mDescriptors;
        }
        for (const auto &folder : {mStateDirectory, mRunDirectory}) {
            for (const auto &entry : std::filesystem::recursive_directory_iterator(folder)) {
                if (entry.is_regular_file()) {
                    ++footprint.mFiles;
                    footprint.mFileBytes += entry.file_size();
                }
            }
        }
        return footprint;
    }

    /** The end of a day, with the host there: what is stored, and what the service takes. */
    void EndDay(uintmax_t mostLogged)
    {
        ASSERT_NO_FATAL_FAILURE(Connect());
        ASSERT_NO_FATAL_FAILURE(CheckStored());
        const Footprint footprint = Measure();
        mFirstDay = mFirstDay.mFiles == 0 ? footprint : mFirstDay;
        mLastDay = footprint;
        EXPECT_EQ(footprint.mFiles, mFirstDay.mFiles);
        EXPECT_LT(footprint.mFileBytes, kFilesKiB * 1024);
        EXPECT_EQ(footprint.mDescriptors, mFirstDay.mDescriptors);
        const uintmax_t logged = mService->StandardError().size();
        EXPECT_LT(logged - mLogged, mostLogged);
        mLogged = logged;
    }

    WatchWorld *mWorld = nullptr;
    WatchMoment mNow;
    PedometerModel mModel;
    std::unique_ptr<Host> mControl;
    std::unique_ptr<Host> mHost;
    uintmax_t mLogged = 0;
    Footprint mFirstDay;
    Footprint mLastDay;
};

TEST_F(RuntimeSoakTest, EveryTotalIsWhatTheRulesGiveAndNothingGrowsAfterTheFirstDay)
{
    const int days = Setting("PARVANE_SOAK_DAYS", WatchLife::kDays);
    const int moments = Setting("PARVANE_SOAK_MOMENTS", 24);
    WatchLife life(static_cast<unsigned>(Setting("PARVANE_SOAK_SEED", 20201219)), moments);
    WatchMoment moment = life.Next();
    ASSERT_NO_FATAL_FAILURE(Begin(moment));
    for (int day = 0; day < days; ++day) {
        while (moment.mDay <= day) {
            SCOPED_TRACE("day " + std::to_string(moment.mDay) + ", clock " +
                         std::to_string(moment.mClock) + ", event " +
                         std::to_string(static_cast<int>(moment.mEvent)));
            ASSERT_NO_FATAL_FAILURE(Live(moment));
            moment = life.Next();
        }
        ASSERT_NO_FATAL_FAILURE(EndDay(kLogBytesOfAMoment * static_cast<uintmax_t>(moments) * 2));
    }
    std::cout << "after the first day: " << mFirstDay << "\nafter day " << days << ": " << mLastDay
              << std::endl;
    if (!kIsInstrumented) {
        EXPECT_LE(mLastDay.mOwnKiB, mFirstDay.mOwnKiB + kOwnKiB);
        EXPECT_LE(mLastDay.mResidentKiB,
                  mFirstDay.mResidentKiB +
                      (moments < kMomentsOfALongDay ? kResidentKiBOfAShortDay : kResidentKiB));
    }
    EXPECT_EQ(StopService(), 0);
    EXPECT_NO_FATAL_FAILURE(CheckStored());
}
