#include <array>
#include <functional>

#include "Measurements.h"
#include "Peers.h"

namespace ParvaneBench {

namespace {

constexpr std::size_t kInFlight = 64;

struct Contender
{
    std::string mName;
    std::unique_ptr<Peer> mPeer;
    /** Requests in one round; slow ones make fewer, so that all rounds take about as long. */
    int mRequests = 0;
    /** Microseconds a request, of each round. */
    std::vector<double> mReadings;
    std::vector<double> mLists;
};

// In which order they stand in the list.
constexpr std::size_t kService = 0;
constexpr std::size_t kPoll = 1;
constexpr std::size_t kGlib = 2;
constexpr std::size_t kBus = 3;
constexpr std::size_t kTopics = 4;
constexpr std::size_t kLibrary = 5;
constexpr std::size_t kLoop = 6;

double Time(int requests, const std::function<void()> &ask)
{
    const auto begin = Clock::now();
    for (int i = 0; i < requests; ++i) {
        ask();
    }
    return MicrosSince(begin) / requests;
}

std::vector<double> Divide(const std::vector<double> &values, const std::vector<double> &by)
{
    std::vector<double> ratios;
    for (std::size_t i = 0; i < values.size(); ++i) {
        ratios.push_back(values[i] / by[i]);
    }
    return ratios;
}

std::vector<Contender> MakeContenders(const Setting &setting)
{
    constexpr int kFast = 100;
    constexpr int kSlow = 40;
    std::vector<Contender> contenders(7);
    contenders[kService] = {"service", MakeServicePeer(setting, false), kFast, {}, {}};
    contenders[kPoll] = {"bare poll echo", MakeEchoPeer(setting, "poll"), kFast, {}, {}};
    contenders[kGlib] = {"bare GLib echo", MakeEchoPeer(setting, "glib"), kFast, {}, {}};
    contenders[kBus] = {"D-Bus (sd-bus)", MakeBusPeer(setting), kSlow, {}, {}};
    contenders[kTopics] = {"mosquitto", MakeTopicPeer(setting), kSlow, {}, {}};
    contenders[kLibrary] = {"C interface", MakeLibraryPeer(setting), kFast, {}, {}};
    contenders[kLoop] = {"bare send, poll and recv", MakeServicePeer(setting, true), kFast, {}, {}};
    return contenders;
}

std::string OnCpus(const Setting &setting)
{
    return setting.mClientCpu == setting.mServerCpu ? ", one core" : ", two cores";
}

/** Compares the service with another; `times` chooses what of both is compared. */
Row Compare(const std::string &name, const Contender &service, const Contender &other,
            std::vector<double> Contender::*times, std::optional<Budget> budget, bool isBroker)
{
    Row row;
    row.mName = name;
    row.mUnit = "us";
    row.mBudget = budget;
    row.mYardstick = other.mName;
    if (!other.mPeer) {
        row.mMissing = "not built: its library is missing";
        return row;
    }
    row.mValue = Summarize(service.*times);
    row.mYardstickValue = Summarize(other.*times);
    // How many times as long as a bare echo it takes, and how many times as fast as a broker it is.
    row.mRatio = Summarize(isBroker ? Divide(other.*times, service.*times)
                                    : Divide(service.*times, other.*times));
    return row;
}

} // namespace

std::vector<Row> MeasureRoundTrips(const Setting &setting)
{
    const bool onOne = setting.mClientCpu == setting.mServerCpu;
    std::vector<Contender> contenders = MakeContenders(setting);
    const int rounds = setting.mIsQuick ? 51 : 201;
    constexpr int kWarmUpRounds = 3;
    for (int round = -kWarmUpRounds; round < rounds; ++round) {
        for (Contender &contender : contenders) {
            Peer *peer = contender.mPeer.get();
            if (peer == nullptr) {
                continue;
            }
            const double reading = Time(contender.mRequests, [peer] { peer->AskForReading(); });
            const double list = Time(contender.mRequests, [peer] { peer->AskForList(); });
            if (round >= 0) {
                contender.mReadings.push_back(reading);
                contender.mLists.push_back(list);
            }
        }
    }
    const auto atMost = [onOne](double limit) {
        return onOne ? std::optional(Budget{Budget::Kind::AtMost, limit, 2, true}) : std::nullopt;
    };
    // Across cores all of them wait for the system's wake-ups, which say nothing about a server.
    const auto atLeast3 =
        onOne ? std::optional(Budget{Budget::Kind::AtLeast, 3, 2, true}) : std::nullopt;
    const Contender &service = contenders[kService];
    const std::string measure = "measure once, activity" + OnCpus(setting);
    const std::string list = "sensor list, 5 packets" + OnCpus(setting);
    const auto through = [&](const std::string &name, std::vector<double> Contender::*times) {
        Row row = Compare("libparvane-host: " + name, contenders[kLibrary], service, times,
                          atMost(1.1), false);
        row.mYardstick = "bare send and recv";
        return row;
    };
    return {
        through(measure, &Contender::mReadings),
        Compare("libparvane-host: " + measure, contenders[kLibrary], contenders[kLoop],
                &Contender::mReadings, std::nullopt, false),
        through(list, &Contender::mLists),
        Compare(measure, service, contenders[kGlib], &Contender::mReadings, atMost(1.15), false),
        Compare(measure, service, contenders[kPoll], &Contender::mReadings, std::nullopt, false),
        Compare(measure, service, contenders[kBus], &Contender::mReadings, atLeast3, true),
        Compare(measure, service, contenders[kTopics], &Contender::mReadings, atLeast3, true),
        Compare(list, service, contenders[kGlib], &Contender::mLists, atMost(1.3), false),
        Compare(list, service, contenders[kPoll], &Contender::mLists, std::nullopt, false),
        Compare(list, service, contenders[kBus], &Contender::mLists, atLeast3, true),
        Compare(list, service, contenders[kTopics], &Contender::mLists, atLeast3, true),
    };
}

std::vector<Row> MeasureManyInFlight(const Setting &setting)
{
    const Service service(setting, {});
    const EchoServer echo(setting, "drain", ReadingSizes());
    const Fd toService = service.ConnectHost();
    const Fd toEcho = echo.Connect();
    const auto batch = [](const Fd &peer) {
        const std::array<std::uint8_t, 4> request = {2, 0, 0, 1};
        for (std::size_t i = 0; i < kInFlight; ++i) {
            SendMessage(peer, request.data(), request.size());
        }
        for (std::size_t i = 0; i < kInFlight; ++i) {
            ReceiveMessage(peer, ReadingSizes().front());
        }
    };
    constexpr int kBatches = 10;
    constexpr double kPerSecond = 1e6 * static_cast<double>(kInFlight);
    const int rounds = setting.mIsQuick ? 51 : 301;
    std::vector<double> rates;
    std::vector<double> echoRates;
    Time(kBatches, [&] { batch(toService); });
    Time(kBatches, [&] { batch(toEcho); });
    for (int round = 0; round < rounds; ++round) {
        rates.push_back(kPerSecond / Time(kBatches, [&] { batch(toService); }));
        echoRates.push_back(kPerSecond / Time(kBatches, [&] { batch(toEcho); }));
    }
    const bool onOne = setting.mClientCpu == setting.mServerCpu;
    Row row;
    row.mName = "64 requests in flight" + OnCpus(setting);
    row.mUnit = "/s";
    row.mValue = Summarize(rates);
    row.mYardstick = "bare GLib echo that drains";
    row.mYardstickValue = Summarize(echoRates);
    row.mRatio = Summarize(Divide(rates, echoRates));
    if (onOne) {
        row.mBudget = Budget{Budget::Kind::AtLeast, 0.9, 2, true};
    }
    return {row};
}

} // namespace ParvaneBench
