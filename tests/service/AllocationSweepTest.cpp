#include <array>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ForkedCall.h"
#include "LogMatchers.h"
#include "PedometerController.h"
#include "PedometerData.h"
#include "Sweep.h"

// Every allocation: each scenario is lived through again and again, each time with another
// allocation of the service failing, alone and with all after it. The service asks for its end in
// order, or it goes on as if nothing had happened; what it has stored is whole.

namespace Parvane {
namespace {

using testing::Contains;

class AllocationSweepTest : public testing::TestWithParam<Scenario>
{
protected:
    AllocationSweepTest() : mReference(ReferenceOf(GetParam()))
    {
        FreshReplies(); // known before the process is multiplied
    }

    /** What became of a life in which memory ran out; its outcome in a word. */
    std::string LookAt(const LifeRecord &record) const
    {
        const auto trace = TraceLine("ParvaneMain: out_of_memory(34)");
        if (!record.mWasRun) {
            EXPECT_EQ(1, record.mExitRequests);
            EXPECT_THAT(record.mLog, Contains(trace).Times(1));
            EXPECT_THAT(record.mLog, Contains(ErrorLine("ParvaneMain: main(*)",
                                                        "not started [std::bad_alloc]")));
            return "not started";
        }
        const bool hasEndedByItself = mReference.mReplies.empty();
        const bool hasRunOut = testing::Value(record.mLog, Contains(trace));
        EXPECT_EQ(hasRunOut || hasEndedByItself, record.mHasEnded);
        if (record.mHasEnded) {
            EXPECT_EQ(1, record.mExitRequests);
            EXPECT_THAT(record.mLog, Contains(trace).Times(hasRunOut ? 1 : 0));
            EXPECT_THAT(record.mLog, Contains(TraceLine("ParvaneMain: app_terminate(56)")));
            return hasRunOut ? "ended in order" : "went on";
        }
        EXPECT_EQ(FreshReplies(), record.mReplies);
        return "went on";
    }

    void SweepAllocations(const char *what, void (ScriptedPlatform::*fail)(int)) const
    {
        ASSERT_GT(mReference.mAllocations, 5);
        Sweep sweep(what, GetParam().mName);
        for (int n = 1; n <= mReference.mAllocations; ++n) {
            Disturbance disturbance;
            disturbance.mBegin = [&](ScriptedPlatform &platform) { (platform.*fail)(n); };
            disturbance.mEnd = [](ServiceLife &life) {
                EXPECT_TRUE(life.Platform().StopFailingAllocations());
            };
            const auto check = [this](const LifeRecord &record) { return LookAt(record); };
            if (!sweep.Point("allocation " + std::to_string(n), GetParam(), disturbance, check)) {
                return;
            }
        }
    }

    const Reference &mReference;
};

TEST_P(AllocationSweepTest, EachAllocationMayFail)
{
    SweepAllocations("failing allocations", &ScriptedPlatform::FailAllocation);
}

TEST_P(AllocationSweepTest, EachAllocationAndAllAfterItMayFail)
{
    SweepAllocations("allocations with all after them failing",
                     &ScriptedPlatform::FailAllocationsFrom);
}

INSTANTIATE_TEST_SUITE_P(Lives, AllocationSweepTest, testing::ValuesIn(Scenarios()),
                         [](const auto &scenario) { return scenario.param.mName; });

// Allocates as the service does; whether it got something.
bool Allocate()
{
    bool isMade = false;
    ScriptedPlatform::AsService([&isMade] {
        try {
            const auto block = std::make_unique<std::array<char, 64>>();
            const void *volatile const seen = block.get(); // or it need not be made at all
            isMade = seen != nullptr;
        } catch (const std::bad_alloc &) {
        }
    });
    return isMade;
}

// The process has half a minute, and would need for ever if the handler were called again and again.
TEST(OutOfMemoryTest, HandlerThatReturnsEndsTheLoopOfOperatorNew)
{
    CallForked("every allocation fails", [] {
        ScriptedPlatform platform;
        platform.SetMainLoop([&platform](const service_app_callbacks &callbacks, void *cell) {
            platform.FailAllocationsFrom(1);
            EXPECT_FALSE(Allocate());
            EXPECT_EQ(1, platform.ExitRequests());
            EXPECT_FALSE(Allocate());
            EXPECT_EQ(1, platform.ExitRequests());
            EXPECT_EQ(nullptr, std::get_new_handler());
            platform.StopFailingAllocations();
            EXPECT_TRUE(Allocate());
            callbacks.terminate(cell);
            return 0;
        });
        char name[] = "parvane";
        char *arguments[] = {name, nullptr};
        EXPECT_EQ(0, ParvaneMain(1, arguments));
        return "";
    });
}

// The sweep counts what shared libraries allocate for the service: a string of its own is made in
// the C++ library.
TEST(OutOfMemoryTest, AllocationsOfLibrariesFailToo)
{
    ScriptedPlatform platform;
    bool hasFailed = false;
    platform.FailAllocation(1);
    ScriptedPlatform::AsService([&hasFailed] {
        try {
            const std::string text(std::string(100, 'a') + "b");
        } catch (const std::bad_alloc &) {
            hasFailed = true;
        }
    });
    EXPECT_TRUE(platform.StopFailingAllocations());
    EXPECT_TRUE(hasFailed);
}

/** The texts of the day's steps are written and read by the C++ library, which allocates for itself. */
class StoredStepsWithoutMemoryTest : public testing::Test
{
protected:
    // Does it again and again on a new platform, each time with another allocation failing.
    static void ForEachAllocation(const std::function<void(ScriptedPlatform &)> &attempt)
    {
        int n = 0;
        for (bool hasFailed = true; hasFailed; ++n) {
            ScriptedPlatform platform;
            platform.FailAllocation(n + 1);
            attempt(platform);
            hasFailed = platform.StopFailingAllocations();
        }
        EXPECT_GT(n, 1);
    }

    static constexpr const char *kValueKey = "Parvane/data/pedometer/value";
    static constexpr const char *kText = "10000 2000 8000 7500.5 400 5";
};

TEST_F(StoredStepsWithoutMemoryTest, TextThatCannotBeBuiltIsNotStored)
{
    ForEachAllocation([](ScriptedPlatform &platform) {
        PedometerController controller(nullptr);
        const auto update = std::make_shared<PedometerData>(10000, 7500.5F, 400, 0, 8000, 2000, 5);
        bool hasThrown = false;
        ScriptedPlatform::AsService([&] {
            try {
                controller.OnSensorDataUpdated(update);
            } catch (const std::bad_alloc &) {
                hasThrown = true;
            }
        });

        EXPECT_EQ(hasThrown ? std::nullopt : std::optional<std::string>(kText),
                  platform.StringPreference(kValueKey));
    });
}

TEST_F(StoredStepsWithoutMemoryTest, TextThatCannotBeReadIsNotTakenForAnotherOne)
{
    ForEachAllocation([](ScriptedPlatform &platform) {
        platform.SetPreference(kValueKey, "1200 200 1000 800.5 60 0");
        ScriptedPlatform::AsService([] {
            try {
                PedometerController controller(nullptr);
                controller.OnSensorDataUpdated(
                    std::make_shared<PedometerData>(0, 0, 0, 0, 0, 0, 0));
            } catch (const std::bad_alloc &) {
            }
        });

        EXPECT_EQ("1200 200 1000 800.5 60 0", platform.StringPreference(kValueKey));
    });
}

} // namespace
} // namespace Parvane
