#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <tuple>

#include "FailingMalloc.h"
#include "Requests.h"
#include "ServiceFixture.h"
#include "Setting.h"
#include "StoredSteps.h"

using Parvane::Setting;
using Parvane::Request::kListInOneByte;
using Parvane::Request::kMeasureHeartRate;
using Parvane::Request::kMeasureSteps;
using Parvane::Request::kStartActivity;
using Parvane::Request::kStopActivity;

namespace {

constexpr int kStopMessage = 4; // the low half of an acknowledgement's first byte
constexpr uint8_t kSteps = 2;

/** A whole run of the program: long enough for a slow machine, short for a loop without end. */
constexpr std::chrono::seconds kLimit(20);
/** After so long without a packet a request counts as lost; the last one has a whole run's time. */
constexpr std::chrono::milliseconds kSilence(500);

/** Each failure is a run of the program: the parts of a sweep go side by side. */
constexpr int kParts = 6;

} // namespace

/** Whether one allocation fails or it and all later ones; and which part of the sweep it is. */
class AllocationFailureTest : public ServiceFixture,
                              public testing::WithParamInterface<std::tuple<bool, int>>
{
protected:
    AllocationFailureTest()
    {
        std::vector<std::string> rows;
        for (int i = 0; i < 200; ++i) {
            const std::string steps = std::to_string(i * 10);
            std::string row = steps;
            row.append(",70,").append(steps).append(",").append(steps).append(",0,,,,2,");
            rows.push_back(std::move(row));
        }
        mRecording = WriteRecording(rows);
    }

    struct Run
    {
        std::optional<int> mStatus; // nothing if it has not ended in time
        bool mHasAnswered = false;  // the last request was answered, at the third attempt at worst
        int64_t mPushedSteps = 0;   // the largest total that reached the host
        std::string mLog;
        FailingMallocReport mReport{};
    };

    /** Starts the service, asks it for all it has as long as it is there, and ends it in order. */
    Run RunService(const std::string &failing)
    {
        const std::filesystem::path file = mFolder.Path() / "report";
        WriteFile(file, std::string(sizeof(FailingMallocReport), '\0'));
        std::filesystem::remove_all(mRunDirectory);
        Environment more = {{"PARVANE_TRACE", mRecording},
                            {"LD_PRELOAD", FAILING_MALLOC_LIBRARY},
                            {"PARVANE_MALLOC_REPORT", file.string()}};
        if (!failing.empty()) {
            more["PARVANE_FAIL_MALLOC"] = failing;
        }
        StartService(more);
        Run run;
        const bool hasBegun = Eventually(
            [&] {
                run.mStatus = mService->WaitForEnd(std::chrono::seconds(0));
                return run.mStatus.has_value() || std::filesystem::exists(LinkPath());
            },
            kLimit);
        EXPECT_TRUE(hasBegun);
        if (!run.mStatus) {
            Talk(run);
        }
        if (!run.mStatus && !run.mHasAnswered) {
            run.mStatus = mService->WaitForEnd(std::chrono::seconds(3)); // it is ending by itself
        }
        if (!run.mStatus) {
            mService->Signal(SIGTERM);
            run.mStatus = mService->WaitForEnd(kLimit);
        }
        run.mLog = mService->StandardError();
        std::memcpy(&run.mReport, ReadFile(file).data(), sizeof run.mReport);
        return run;
    }

    std::string mRecording;

private:
    void Talk(Run &run)
    {
        std::optional<Host> host;
        const auto hasConnected = [&] {
            run.mStatus = mService->WaitForEnd(std::chrono::seconds(0));
            try {
                host.emplace(LinkPath(), std::chrono::milliseconds(0));
            } catch (const std::runtime_error &) {
                host.reset();
            }
            return run.mStatus.has_value() || host.has_value();
        };
        EXPECT_TRUE(Eventually(hasConnected, kLimit));
        if (run.mStatus || !host) {
            return;
        }
        for (const Bytes &request :
             {kListInOneByte, kMeasureSteps, kMeasureSteps, kStartActivity, kMeasureHeartRate}) {
            host->TrySend(request);
        }
        for (int packets = 0; packets < 9; ++packets) {
            Receive(*host, run, std::chrono::milliseconds(50));
        }
        // Memory may have run out where one was received: nobody answers that one.
        for (const std::chrono::milliseconds silence :
             {kSilence, kSilence, std::chrono::milliseconds(kLimit)}) {
            if (run.mHasAnswered || !host->TrySend(kStopActivity)) {
                return;
            }
            // Steps may be pushed all the time, so that it is never quiet.
            Eventually([&] { return !Receive(*host, run, silence) || run.mHasAnswered; }, kLimit);
        }
    }

    /** Receives one packet and notes what it tells; false if there is none. */
    static bool Receive(const Host &host, Run &run, std::chrono::milliseconds limit)
    {
        const auto packet = host.Receive(limit);
        if (!packet || packet->size() <= kSensorOffset) {
            return false;
        }
        if ((packet->front() & 0x0FU) == kStopMessage) {
            run.mHasAnswered = true;
        } else if (IsReadingOf(*packet, kSteps)) {
            const auto total = static_cast<int64_t>(std::llround(ValueOf(*packet)));
            run.mPushedSteps = std::max(run.mPushedSteps, total);
        }
        return true;
    }
};

namespace {

bool Contains(const std::string &text, const char *part)
{
    return text.find(part) != std::string::npos;
}

/**
 * What became of a run, in a word; nothing if it did not end as it may.
 *
 * GLib ends the process when there is no memory for what it allocates itself: for the sources of the
 * main loop, the timers and the reading of the configuration. It does so with a line and a trap, and
 * when there is no memory for the line either, its attempt to say so uses up the stack.
 */
template <typename Run>
std::optional<std::string> OutcomeOf(const Run &run)
{
    switch (run.mStatus.value_or(-1)) {
    case -SIGTERM: // it was on its way out already
        return Contains(run.mLog, "ParvaneMain: app_terminate(56)") &&
                       Contains(run.mLog, "ParvaneMain: out_of_memory(34)")
                   ? std::optional<std::string>("ended in order")
                   : std::nullopt;
    case 0:
        if (Contains(run.mLog, "ParvaneMain: out_of_memory(34)")) {
            return "ended in order";
        }
        if (Contains(run.mLog, "APP_ERROR_OUT_OF_MEMORY")) {
            return "not started";
        }
        return run.mHasAnswered ? std::optional<std::string>("went on") : std::nullopt;
    case EXIT_FAILURE:
        return Contains(run.mLog, " E platform: ") ? std::optional<std::string>("refused to start")
                                                   : std::nullopt;
    case -SIGTRAP:
    case -SIGABRT:
        if (Contains(run.mLog, "GLib-ERROR") || Contains(run.mLog, "GLib (gthread-posix.c)") ||
            Contains(run.mLog, "GSlice: failed to allocate")) {
            return "ended by GLib";
        }
        return std::nullopt;
    case -SIGSEGV:
        if (run.mReport.has_overflown_in_glib != 0) {
            return "ended by GLib without a word";
        }
        return std::nullopt;
    default:
        return std::nullopt;
    }
}

} // namespace

TEST_P(AllocationFailureTest, ServiceEndsInOrderOrGoesOnAndItsStepsAreWhole)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a sanitizer does not give its malloc() away";
#endif
    ASSERT_EQ(RunService("").mStatus, 0);
    const std::filesystem::path seed = mFolder.Path() / "seed";
    std::filesystem::copy(mStateDirectory, seed, std::filesystem::copy_options::recursive);
    const int64_t seedTotal = StoredSteps::Read(seed, mFolder.Path()).mTotal;
    ASSERT_GT(seedTotal, 0);
    const Run sound = RunService("");
    ASSERT_TRUE(sound.mHasAnswered);
    ASSERT_GT(sound.mReport.count, 500);

    std::map<std::string, int> outcomes;
    int points = 0;
    const int stride = Setting("PARVANE_SWEEP_STRIDE", ALLOCATIONS_BETWEEN_FAILURES);
    const auto [allLater, part] = GetParam();
    const std::string mode = allLater ? "+" : "";
    for (int64_t n = 1 + part * stride; n <= sound.mReport.count; n += kParts * stride, ++points) {
        SCOPED_TRACE("allocation " + std::to_string(n) + mode);
        std::filesystem::remove_all(mStateDirectory);
        std::filesystem::copy(seed, mStateDirectory, std::filesystem::copy_options::recursive);

        const Run run = RunService(std::to_string(n) + mode);

        const std::optional<std::string> outcome = OutcomeOf(run);
        ASSERT_TRUE(outcome.has_value())
            << "status " << run.mStatus.value_or(-1) << ", answered " << run.mHasAnswered << "\n"
            << run.mLog;
        ++outcomes[*outcome];
        const StoredSteps stored = StoredSteps::Read(mStateDirectory, mFolder.Path());
        ASSERT_EQ(stored.mIntegrity, "ok");
        ASSERT_GE(stored.mTotal, std::max(seedTotal, run.mPushedSteps)) << run.mLog;
        ASSERT_GT(stored.mTime, 0);
        for (const auto &entry : std::filesystem::directory_iterator(mStateDirectory)) {
            ASSERT_FALSE(Contains(entry.path().string(), ".corrupt-")) << "set aside\n" << run.mLog;
        }
    }
    std::cout << "swept the real service: " << points << " of " << sound.mReport.count
              << " allocations failing" << (allLater ? " with all after them" : "");
    for (const auto &[outcome, count] : outcomes) {
        std::cout << ", " << count << " " << outcome;
    }
    std::cout << std::endl;
    EXPECT_EQ(RunService("").mStatus, 0);
}

INSTANTIATE_TEST_SUITE_P(Failing, AllocationFailureTest,
                         testing::Combine(testing::Bool(), testing::Range(0, kParts)),
                         [](const auto &what) {
                             return (std::get<0>(what.param) ? "From" : "One") +
                                    std::to_string(std::get<1>(what.param));
                         });
