#include <array>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

#include "Measurements.h"

namespace ParvaneBench {

namespace {

constexpr std::int64_t kDays = 7;
constexpr std::int64_t kDayMs = 86'400'000;
constexpr std::int64_t kActivityMs = 10'000;
constexpr std::int64_t kStepsMs = 300'000;

/** A week of a watch: what the wearer does every 10 seconds, steps every 5 minutes. */
void WriteWeek(const std::filesystem::path &file)
{
    // One that the activity's subscription does not leave out: still, walking, running in turn.
    constexpr std::int64_t kActivities = 3;
    std::ofstream out(file);
    out << "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,calories_kcal,speed,activity,"
           "gesture\n";
    // Something to answer the host with when it subscribes, and time for it to do so.
    out << "0,70,0,0,0,0,0,0,1,\n";
    constexpr std::int64_t kLeadMs = 5 * kDayMs;
    std::int64_t steps = 0;
    for (std::int64_t ms = 0; ms < kDays * kDayMs; ms += kActivityMs) {
        out << kLeadMs + ms << ",70,";
        if (ms % kStepsMs == 0) {
            steps += 250;
            out << steps << ',' << steps << ",0," << steps << ".5," << steps / 25 << ",4,";
        } else {
            out << ",,,,,,";
        }
        out << 1 + ms / kActivityMs % kActivities << ",\n";
    }
}

/** Microseconds of a processor that the process has had. */
double CpuUs(const Service &service)
{
    std::ifstream stream(service.Proc("schedstat"));
    double nanoseconds = 0;
    stream >> nanoseconds;
    return nanoseconds / 1000;
}

/** What the readings have cost up to a moment. */
struct Spent
{
    double mCpuUs = 0;
    double mReadings = 0;
};

/** Asks through the control socket how many readings the service was given. */
Spent SpentBy(const Service &service, const Fd &control)
{
    constexpr char kStatus[] = R"({"request":"status"})";
    constexpr std::string_view kMember = "\"delivered\":";
    constexpr std::size_t kLongestReply = 65536;
    Spent spent;
    spent.mCpuUs = CpuUs(service);
    SendMessage(control, kStatus, sizeof kStatus - 1);
    std::string reply(kLongestReply, '\0');
    const ssize_t length = read(control.Get(), reply.data(), reply.size());
    reply.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    for (std::size_t at = reply.find(kMember); at != std::string::npos;
         at = reply.find(kMember, at + 1)) {
        spent.mReadings += std::strtod(reply.c_str() + at + kMember.size(), nullptr);
    }
    return spent;
}

/** Takes what comes until then: a host that does not read is not sent everything. */
void ReadUntil(const Host &host, Clock::time_point end)
{
    std::array<std::uint8_t, 64> packet{};
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) {
            return;
        }
        pollfd ready = {host.Peer().Get(), POLLIN, 0};
        if (poll(&ready, 1, static_cast<int>(left)) > 0 &&
            recv(ready.fd, packet.data(), packet.size(), 0) <= 0) {
            Fail("the service has gone");
        }
    }
}

/** A file that is written without any service. */
class PlainFile
{
public:
    enum class Place { AtTheBeginning, AtTheEnd };

    explicit PlainFile(const Setting &setting)
        : mFolder(setting.mDisk),
          mFile(open((mFolder.Path() / "value").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {}

    /** Writes what is stored of an update: the text of the six measurements, and the time. */
    void Write(Place place) const
    {
        const std::string bytes = "8123 0 8123 6092.25 324 4" + std::string(sizeof(int), 't');
        const off_t offset = place == Place::AtTheEnd ? lseek(mFile.Get(), 0, SEEK_END) : 0;
        if (pwrite(mFile.Get(), bytes.data(), bytes.size(), offset) < 0 ||
            fdatasync(mFile.Get()) != 0) {
            FailErrno("a file in " + mFolder.Path().string());
        }
    }

private:
    TemporaryFolder mFolder;
    Fd mFile;
};

/** Makes steps and waits for them. @return how long that took, in microseconds */
double Update(const Host &host, const Fd &control)
{
    constexpr char kSteps[] = R"({"request":"set","item":"steps","add":7})";
    std::array<char, 256> reply{};
    const auto begin = Clock::now();
    SendMessage(control, kSteps, sizeof kSteps - 1);
    host.AwaitReading();
    const double time = MicrosSince(begin);
    if (read(control.Get(), reply.data(), reply.size()) <= 0) {
        FailErrno("the control socket");
    }
    return time;
}

Row CompareUpdates(const Host &host, const Fd &control, const PlainFile &file, int rounds,
                   PlainFile::Place place)
{
    std::vector<double> updates;
    std::vector<double> writes;
    std::vector<double> ratios;
    for (int round = 0; round < rounds; ++round) {
        const double update = Update(host, control);
        const auto begin = Clock::now();
        file.Write(place);
        const double write = MicrosSince(begin);
        updates.push_back(update);
        writes.push_back(write);
        ratios.push_back(update / write);
    }
    Row row;
    row.mUnit = "us";
    row.mValue = Summarize(updates);
    row.mYardstickValue = Summarize(writes);
    row.mRatio = Summarize(ratios);
    row.mBudget = Budget{Budget::Kind::AtMost, 2.2, 2, false};
    return row;
}

} // namespace

std::vector<Row> MeasureDurableUpdate(const Setting &setting)
{
    Service::Options options;
    options.mConfiguration = "[sensors]\npedometer=manual\n";
    const Service service(setting, options);
    const Host host(service.ConnectHost());
    host.OptInToSteps();
    ReadUntil(host, Clock::now() + std::chrono::seconds(1)); // what the subscription began with
    const Fd control = service.ConnectControl();
    const PlainFile file(setting);

    // The log of the preferences grows to 100 pages, then it is written over from its beginning.
    constexpr int kGrowing = 60;
    constexpr int kUntilFull = 60;
    Row growing = CompareUpdates(host, control, file, kGrowing, PlainFile::Place::AtTheEnd);
    growing.mName = "steps stored and in the host's hands, first 60 of a start";
    growing.mYardstick = "pwrite at the end + fdatasync";
    for (int i = 0; i < kUntilFull; ++i) {
        Update(host, control);
    }
    Row later = CompareUpdates(host, control, file, setting.mIsQuick ? 60 : 400,
                               PlainFile::Place::AtTheBeginning);
    later.mName = "steps stored and in the host's hands, later";
    later.mYardstick = "pwrite in place + fdatasync";
    return {later, growing};
}

std::vector<Row> MeasureWeek(const Setting &setting)
{
    const TemporaryFolder folder(FastFolder());
    const auto recording = folder.Path() / "week.csv";
    WriteWeek(recording);
    const std::int64_t speed = setting.mIsQuick ? 100'000 : 50'000;
    Service::Options options;
    options.mState = folder.Path() / "state";
    options.mEnvironment = {"PARVANE_TRACE=" + recording.string(), "PARVANE_LOOP=0",
                            "PARVANE_SPEED=" + std::to_string(speed)};
    const Service service(setting, options);
    const Host host(service.ConnectHost());
    host.OptInToSteps();
    host.StartActivity();

    const Fd control = service.ConnectControl();
    host.AwaitReading();
    std::vector<double> costs;
    const auto begin = Clock::now();
    Spent before = SpentBy(service, control);
    for (std::int64_t day = 1; day <= kDays; ++day) {
        ReadUntil(host, begin + std::chrono::milliseconds(day * kDayMs / speed));
        const Spent now = SpentBy(service, control);
        costs.push_back((now.mCpuUs - before.mCpuUs) / (now.mReadings - before.mReadings));
        before = now;
    }
    Row row;
    row.mName = "CPU time per reading, a week at speed: last day / first day";
    row.mUnit = "us";
    row.mValue = Summarize({costs.back()});
    row.mYardstick = "first day";
    row.mYardstickValue = Summarize({costs.front()});
    row.mRatio = Summarize({costs.back() / costs.front()});
    row.mBudget = Budget{Budget::Kind::AtMost, 1.15, 2, true};
    Row all;
    all.mName = "the same, of the seven days";
    all.mUnit = "us";
    all.mValue = Summarize(costs);
    return {row, all};
}

} // namespace ParvaneBench
