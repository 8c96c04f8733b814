#include <array>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <malloc.h>
#include <memory>
#include <parvane/host.h>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "Measurements.h"

namespace ParvaneBench {

namespace {

constexpr std::int64_t kSteps = 7; // of each round

/** Microseconds of a processor that this process has had. */
double CpuUs()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

/** Kilobytes that this process has allocated and not freed. */
double AllocatedKb()
{
    return static_cast<double>(mallinfo2().uordblks) / 1024;
}

/** A watch on somebody's wrist: the service, and a hand on what its sensors say. */
struct Wearer
{
    explicit Wearer(const Setting &setting, const Service::Options &options)
        : mService(setting, options)
    {}

    void Do(const std::string &request) const
    {
        std::array<char, 256> reply{};
        SendMessage(mControl, request.data(), request.size());
        if (read(mControl.Get(), reply.data(), reply.size()) <= 0) {
            FailErrno("the control socket");
        }
    }

    Service mService;
    Fd mControl;
};

/** A phone's side with many watches in one thread, as a program makes it with the C interface. */
class Hub
{
public:
    void Add(const std::string &path)
    {
        parvane_watch *watch = nullptr;
        if (parvane_watch_new(path.c_str(), nullptr, &watch) < 0) {
            Fail("the library makes no watch");
        }
        mWatches.push_back({std::unique_ptr<parvane_watch, Free>(watch)});
        parvane_session *session = parvane_watch_session(watch);
        parvane_session_follow(session, PARVANE_ACTIVITY, 0, nullptr);
        parvane_session_follow(session, PARVANE_STEPS, 0, nullptr);
        mPolled.resize(mWatches.size());
    }

    /** Reads until each watch has told so many activities, the last of them this one, and so many steps. */
    void Await(std::int64_t activities, float activity, std::int64_t steps)
    {
        const auto deadline = Clock::now() + std::chrono::seconds(60);
        for (bool isAll = false; !isAll;) {
            if (Clock::now() > deadline) {
                Fail("waited for a minute for what the watches tell");
            }
            const double before = CpuUs();
            Turn();
            mCpuUs += CpuUs() - before;
            isAll = true;
            for (const Watch &watch : mWatches) {
                isAll = isAll && watch.mActivities >= activities && watch.mActivity == activity &&
                        watch.mIsExact && watch.mSteps >= steps;
            }
        }
    }

    /** What comes from now on is counted from 0. */
    void BeginAnew()
    {
        mReadings = 0;
        mCpuUs = 0;
        for (Watch &watch : mWatches) {
            watch.mActivities = 0;
        }
    }

    /** Activities that are missing, or are there twice, and steps. */
    [[nodiscard]] double Wrong(std::int64_t rounds) const
    {
        std::int64_t wrong = 0;
        for (const Watch &watch : mWatches) {
            wrong +=
                std::abs(watch.mActivities - rounds) + std::abs(watch.mSteps - rounds * kSteps);
        }
        return static_cast<double>(wrong);
    }

    [[nodiscard]] double CpuUsPerReading() const { return mCpuUs / static_cast<double>(mReadings); }

private:
    struct Free
    {
        void operator()(parvane_watch *watch) const { parvane_watch_free(watch); }
    };

    struct Watch
    {
        std::unique_ptr<parvane_watch, Free> mHandle;
        std::int64_t mActivities = 0;
        float mActivity = -1;
        std::int64_t mSteps = -1;
        bool mIsExact = false;
    };

    void Turn()
    {
        int timeout = 1000;
        for (std::size_t i = 0; i < mWatches.size(); ++i) {
            parvane_watch *watch = mWatches[i].mHandle.get();
            if (mPolled[i].revents != 0 || parvane_watch_timeout_ms(watch) == 0) {
                parvane_watch_process(watch);
                TakeEvents(mWatches[i]);
            }
            mPolled[i] = {parvane_watch_fd(watch), parvane_watch_poll_events(watch), 0};
            const int own = parvane_watch_timeout_ms(watch);
            timeout = own < 0 || own > timeout ? timeout : own;
        }
        if (poll(mPolled.data(), mPolled.size(), timeout) < 0) {
            FailErrno("poll");
        }
    }

    void TakeEvents(Watch &watch)
    {
        parvane_event event{};
        while (parvane_session_next_event(parvane_watch_session(watch.mHandle.get()), &event,
                                          sizeof event) > 0) {
            if (event.kind != PARVANE_EVENT_READING) {
                continue;
            }
            ++mReadings;
            if (event.sensor == PARVANE_ACTIVITY) {
                ++watch.mActivities;
                watch.mActivity = event.reading.value;
            } else if (event.reading.has_day != 0 && event.reading.is_settled != 0) {
                watch.mSteps = event.reading.day.steps;
                watch.mIsExact = event.reading.day.is_exact != 0;
            }
        }
    }

    std::vector<Watch> mWatches;
    std::vector<pollfd> mPolled;
    std::int64_t mReadings = 0;
    double mCpuUs = 0;
};

Row MakeRow(const std::string &name, const std::string &unit, double value, double limit,
            double headRoom)
{
    Row row;
    row.mName = name;
    row.mUnit = unit;
    row.mValue = Summarize({value});
    row.mBudget = Budget{Budget::Kind::AtMost, limit, headRoom, true};
    return row;
}

} // namespace

std::vector<Row> MeasureFleet(const Setting &setting)
{
    const std::size_t count = setting.mIsQuick ? 20 : 200;
    const int rounds = setting.mIsQuick ? 5 : 20;
    Service::Options options;
    options.mConfiguration = "[sensors]\npedometer=manual\nactivity=manual\n";
    const TemporaryFolder states(FastFolder()); // how fast the disk is does not matter here
    std::vector<std::unique_ptr<Wearer>> wearers;
    for (std::size_t i = 0; i < count; ++i) {
        options.mState = states.Path() / std::to_string(i);
        wearers.push_back(std::make_unique<Wearer>(setting, options));
    }
    for (const auto &wearer : wearers) {
        wearer->mControl = wearer->mService.ConnectControl();
    }
    const double before = AllocatedKb();
    Hub hub;
    for (const auto &wearer : wearers) {
        hub.Add(wearer->mService.LinkPath());
    }
    hub.Await(1, 0, 0);
    hub.BeginAnew();
    for (int round = 1; round <= rounds; ++round) {
        const bool isRunning = round % 2 == 0;
        for (const auto &wearer : wearers) {
            wearer->Do(std::string(R"({"request":"set","item":"activity","value":")") +
                       (isRunning ? "running" : "walking") + R"("})");
            wearer->Do(R"({"request":"set","item":"steps","add":)" + std::to_string(kSteps) + "}");
        }
        hub.Await(round, isRunning ? 2.0F : 1.0F, round * kSteps);
    }
    const double memory = (AllocatedKb() - before) / static_cast<double>(count);
    const std::string watches = std::to_string(count) + " watches, one thread: ";
    return {MakeRow(watches + "activities and steps lost", "", hub.Wrong(rounds), 0, 1),
            MakeRow(watches + "CPU time per reading", "us", hub.CpuUsPerReading(), 15, 2),
            MakeRow(watches + "memory per watch", "KiB", memory, 20, 2)};
}

} // namespace ParvaneBench
