#include <atomic>
#include <cstdint>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "AllocationCounts.h"
#include "Measurements.h"

namespace ParvaneBench {

namespace {

constexpr int kSteadyRequests = 1000;

/** The counts of a program that loads the counting library. */
class SharedCounts
{
public:
    explicit SharedCounts(const std::filesystem::path &file)
    {
        const Fd fd(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        if (fd.Get() < 0 || ftruncate(fd.Get(), sizeof(AllocationCounts)) != 0) {
            FailErrno(file.string());
        }
        void *shared = mmap(nullptr, sizeof(AllocationCounts), PROT_READ, MAP_SHARED, fd.Get(), 0);
        if (shared == MAP_FAILED) {
            FailErrno("mmap");
        }
        mCounts = static_cast<const AllocationCounts *>(shared);
    }
    SharedCounts(const SharedCounts &) = delete;
    SharedCounts &operator=(const SharedCounts &) = delete;
    ~SharedCounts() { munmap(const_cast<AllocationCounts *>(mCounts), sizeof(AllocationCounts)); }

    double Allocations() const { return static_cast<double>(mCounts->mAllocations.load()); }
    double Live() const { return static_cast<double>(mCounts->mLive.load()); }

private:
    const AllocationCounts *mCounts = nullptr;
};

struct Memory
{
    std::vector<double> mResident;
    std::vector<double> mPrivateDirty;

    /** Adds the memory of a process whose folder below /proc is `proc`. */
    void Add(const std::filesystem::path &proc)
    {
        mResident.push_back(static_cast<double>(NumberIn(proc / "smaps_rollup", "Rss:")));
        mPrivateDirty.push_back(
            static_cast<double>(NumberIn(proc / "smaps_rollup", "Private_Dirty:")));
    }
};

/** The empty program; it runs and its loop turns. */
class EmptyProgram
{
public:
    explicit EmptyProgram(const Setting &setting) : mPipe(MakePipe()), mChild(MakeStart(setting))
    {
        mPipe.second = Fd();
        char byte = 0;
        if (read(mPipe.first.Get(), &byte, 1) != 1) {
            Fail("the empty program has not started");
        }
    }

    std::filesystem::path Proc() const
    {
        return std::filesystem::path("/proc") / std::to_string(mChild.Pid());
    }

private:
    static std::pair<Fd, Fd> MakePipe()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            FailErrno("pipe");
        }
        return {Fd(ends[0]), Fd(ends[1])};
    }

    Child::Start MakeStart(const Setting &setting) const
    {
        Child::Start start;
        start.mArguments = {setting.Yardstick("parvane-bench-empty")};
        start.mOutput = mPipe.second.Get();
        start.mCpu = setting.mServerCpu;
        return start;
    }

    std::pair<Fd, Fd> mPipe;
    Child mChild;
};

Row CompareWithEmpty(const std::string &name, const std::string &unit,
                     const std::vector<double> &values, const std::vector<double> &empty,
                     Budget budget)
{
    Row row;
    row.mName = name;
    row.mUnit = unit;
    row.mValue = Summarize(values);
    row.mYardstick = "empty GLib program";
    row.mYardstickValue = Summarize(empty);
    std::vector<double> ratios;
    for (std::size_t i = 0; i < values.size(); ++i) {
        ratios.push_back(values[i] / empty[i]);
    }
    row.mRatio = Summarize(ratios);
    row.mBudget = budget;
    return row;
}

/** Everything that a host can ask for at once. */
void MakeTraffic(const Host &host)
{
    for (int i = 0; i < kSteadyRequests; ++i) {
        host.MeasureActivity();
        host.List();
    }
}

void AddAfterTraffic(Memory &memory, const Setting &setting, const Service::Options &options)
{
    const Service running(setting, options);
    const Host host(running.ConnectHost());
    MakeTraffic(host);
    memory.Add(running.Proc(""));
}

} // namespace

std::vector<Row> MeasureAllocations(const Setting &setting)
{
    const TemporaryFolder folder(std::filesystem::temp_directory_path());
    const auto file = folder.Path() / "counts";
    const SharedCounts counts(file);
    Service::Options options;
    options.mEnvironment = {"LD_PRELOAD=" + setting.Yardstick("parvane-bench-allocations.so"),
                            "PARVANE_BENCH_ALLOCATIONS=" + file.string()};
    const Service service(setting, options);
    const Host host(service.ConnectHost());
    MakeTraffic(host);

    const auto perRequest = [&counts, &host] {
        const double before = counts.Allocations();
        for (int i = 0; i < kSteadyRequests; ++i) {
            host.MeasureActivity();
        }
        // The service may still be at the end of the turn that has answered the last one.
        host.List();
        const double list = counts.Allocations();
        host.List();
        const double listCost = counts.Allocations() - list;
        return (list - before - listCost) / kSteadyRequests;
    };
    const int more = setting.mIsQuick ? 20 : 100;
    std::vector<double> early;
    std::vector<double> late;
    late.reserve(static_cast<std::size_t>(more));
    early.push_back(perRequest());
    const double liveBefore = counts.Live();
    for (int i = 0; i < more; ++i) {
        late.push_back(perRequest());
    }
    Row row;
    row.mName = "allocations per measure-once request";
    row.mValue = Summarize(late);
    row.mBudget = Budget{Budget::Kind::AtMost, 8, 1, true};

    Row growth;
    growth.mName = "the same, grown with the requests";
    growth.mValue = Single(late.back() - early.front());
    growth.mBudget = Budget{Budget::Kind::AtMost, 0, 1, true};

    Row live;
    live.mName = "blocks that stayed after " + std::to_string(more * kSteadyRequests) + " requests";
    live.mValue = Single(counts.Live() - liveBefore);
    live.mBudget = Budget{Budget::Kind::AtMost, 0, 1, true};
    return {row, growth, live};
}

std::vector<Row> MeasureMemory(const Setting &setting)
{
    Memory service;
    Memory underUnit;
    Memory empty;
    Service::Options unit;
    unit.mIsUnderUnit = true;
    for (int round = 0; round < 5; ++round) {
        AddAfterTraffic(service, setting, {});
        AddAfterTraffic(underUnit, setting, unit);
        empty.Add(EmptyProgram(setting).Proc());
    }
    const Budget resident = {Budget::Kind::AtMost, 1.5, 2, true};
    const Budget dirty = {Budget::Kind::AtMost, 2.5, 2, true};
    return {CompareWithEmpty("resident memory after traffic", "kB", service.mResident,
                             empty.mResident, resident),
            CompareWithEmpty("private dirty memory after traffic", "kB", service.mPrivateDirty,
                             empty.mPrivateDirty, dirty),
            CompareWithEmpty("resident memory, as shipped under its unit", "kB",
                             underUnit.mResident, empty.mResident, resident),
            CompareWithEmpty("private dirty memory, as shipped under its unit", "kB",
                             underUnit.mPrivateDirty, empty.mPrivateDirty, dirty)};
}

std::vector<Row> MeasureStart(const Setting &setting)
{
    const TemporaryFolder state(setting.mDisk);
    std::vector<double> first;
    std::vector<double> later;
    std::vector<double> underUnit;
    std::vector<double> empty;
    const auto start = [&setting](const std::filesystem::path &stateDirectory, bool isUnderUnit) {
        const auto begin = Clock::now();
        Service::Options options;
        options.mState = stateDirectory;
        options.mIsUnderUnit = isUnderUnit;
        const Service service(setting, options);
        const Host host(service.ConnectHost());
        host.MeasureActivity();
        return MicrosSince(begin) / 1000;
    };
    start(state.Path() / "kept", false);
    const int rounds = setting.mIsQuick ? 11 : 41;
    for (int round = 0; round < rounds; ++round) {
        later.push_back(start(state.Path() / "kept", false));
        underUnit.push_back(start(state.Path() / "kept", true));
        first.push_back(start(state.Path() / std::to_string(round), false));
        const auto begin = Clock::now();
        const EmptyProgram program(setting);
        empty.push_back(MicrosSince(begin) / 1000);
    }
    Row atFirst = CompareWithEmpty("from exec to the first answer, nothing stored yet", "ms", first,
                                   empty, {});
    atFirst.mBudget.reset();
    return {CompareWithEmpty("from exec to the first answer", "ms", later, empty,
                             {Budget::Kind::AtMost, 3, 2, true}),
            CompareWithEmpty("from exec to the first answer, as shipped under its unit", "ms",
                             underUnit, empty, {Budget::Kind::AtMost, 3, 2, true}),
            atFirst};
}

std::vector<Row> MeasureWakeUps(const Setting &setting)
{
    constexpr unsigned kSecondUs = 1'000'000;
    const unsigned seconds = setting.mIsQuick ? 3 : 15;
    const auto switches = [](const Service &service) {
        return NumberIn(service.Proc("status"), "voluntary_ctxt_switches:");
    };
    Service::Options manual;
    manual.mConfiguration = "[sensors]\npedometer=manual\nactivity=manual\nheart_rate=manual\n";
    const Service idle(setting, {});
    const Service subscribed(setting, manual);
    const Host idleHost(idle.ConnectHost());
    const Host host(subscribed.ConnectHost());
    idleHost.MeasureActivity();
    host.OptInToSteps();
    host.StartActivity();
    usleep(kSecondUs); // the answers' own turns of the loop end
    const auto idleBefore = switches(idle);
    const auto subscribedBefore = switches(subscribed);
    usleep(seconds * kSecondUs);
    Row nothing;
    nothing.mName = "wake-ups in " + std::to_string(seconds) + " s, nothing subscribed";
    nothing.mValue = Single(static_cast<double>(switches(idle) - idleBefore));
    nothing.mBudget = Budget{Budget::Kind::AtMost, 0, 1, true};
    Row silent;
    silent.mName = "wake-ups in " + std::to_string(seconds) + " s, subscribed, no readings";
    silent.mValue = Single(static_cast<double>(switches(subscribed) - subscribedBefore));
    silent.mBudget = Budget{Budget::Kind::AtMost, 0, 1, true};
    return {nothing, silent};
}

Row MeasureSize(const std::filesystem::path &executable)
{
    Row row;
    row.mName = "stripped service executable on armhf";
    row.mUnit = "KiB";
    row.mBudget = Budget{Budget::Kind::AtMost, 200, 1, true};
    if (executable.empty()) {
        row.mMissing = "not measured: no build for armhf";
        return row;
    }
    row.mValue = Single(static_cast<double>(std::filesystem::file_size(executable)) / 1024);
    return row;
}

} // namespace ParvaneBench
