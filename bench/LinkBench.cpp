/**
 * @file
 * How fast the service is: from exec to registered, and the round trip of a sensor-list request next
 * to a bare echo server on the same kind of socket, measured in turns in one run.
 *
 * Usage: parvane-bench SERVICE [--json]
 *
 * Times depend on the machine and its load; the ratios are what to compare.
 */

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Micros = std::chrono::duration<double, std::micro>;

constexpr int kStarts = 31;
constexpr int kRounds = 21;
constexpr int kRequestsPerRound = 1000;
constexpr int kWarmUpRequests = 200;
constexpr int kAnswerTimeoutMs = 5000;

// A sensor list is answered with one packet of 13 bytes and one of 25 for each of four sensors.
constexpr std::array<uint8_t, 4> kListRequest = {0x01, 0x00, 0x00, 0x00};
constexpr std::array<std::size_t, 5> kListReplySizes = {13, 25, 25, 25, 25};

[[noreturn]] void Fail(const std::string &what)
{
    throw std::runtime_error(what);
}

[[noreturn]] void FailErrno(const std::string &what)
{
    Fail(what + ": " + std::generic_category().message(errno));
}

class Fd
{
public:
    explicit Fd(int fd = -1) : mFd(fd) {}
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    Fd(Fd &&other) noexcept : mFd(other.mFd) { other.mFd = -1; }
    Fd &operator=(Fd &&other) noexcept
    {
        std::swap(mFd, other.mFd);
        return *this;
    }
    ~Fd()
    {
        if (mFd >= 0) {
            close(mFd);
        }
    }
    int Get() const { return mFd; }

private:
    int mFd;
};

/** A child process, ended and waited for by its owner. */
class Child
{
public:
    explicit Child(pid_t pid) : mPid(pid) {}
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child()
    {
        kill(mPid, SIGTERM);
        waitpid(mPid, nullptr, 0);
    }

private:
    pid_t mPid;
};

/** A folder that goes with its owner. */
class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        std::string name =
            (std::filesystem::temp_directory_path() / "parvane-bench.XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            FailErrno("mkdtemp " + name);
        }
        mPath = name;
    }
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;
    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }
    const std::filesystem::path &Path() const { return mPath; }

private:
    std::filesystem::path mPath;
};

sockaddr_un AddressOf(const std::filesystem::path &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string text = path.string();
    if (text.size() >= sizeof(address.sun_path)) {
        Fail("the path is too long for a socket: " + text);
    }
    std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
    return address;
}

Fd MakeSocket()
{
    Fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (fd.Get() < 0) {
        FailErrno("socket");
    }
    return fd;
}

bool TryConnect(const Fd &fd, const std::filesystem::path &path)
{
    const sockaddr_un address = AddressOf(path);
    return connect(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
}

/** Connects, waiting for the socket to appear. */
Fd ConnectTo(const std::filesystem::path &path)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(kAnswerTimeoutMs);
    for (;;) {
        Fd fd = MakeSocket();
        if (TryConnect(fd, path)) {
            return fd;
        }
        if (Clock::now() > deadline) {
            FailErrno("connect " + path.string());
        }
        sched_yield();
    }
}

void Receive(const Fd &fd, std::size_t expected)
{
    std::array<uint8_t, 256> buffer{};
    const ssize_t length = recv(fd.Get(), buffer.data(), buffer.size(), 0);
    if (length != static_cast<ssize_t>(expected)) {
        Fail("an answer of " + std::to_string(expected) + " bytes was due, " +
             std::to_string(length) + " came");
    }
}

void RoundTrip(const Fd &fd)
{
    if (send(fd.Get(), kListRequest.data(), kListRequest.size(), MSG_NOSIGNAL) < 0) {
        FailErrno("send");
    }
    for (const std::size_t size : kListReplySizes) {
        Receive(fd, size);
    }
}

/** Answers every message with packets of the sizes of a sensor list, and does nothing else. */
[[noreturn]] void ServeEcho(const Fd &listener)
{
    const std::array<uint8_t, 64> reply{};
    std::array<uint8_t, 256> buffer{};
    for (;;) {
        const Fd peer(accept(listener.Get(), nullptr, nullptr));
        pollfd ready{peer.Get(), POLLIN, 0};
        while (poll(&ready, 1, -1) == 1 && recv(peer.Get(), buffer.data(), buffer.size(), 0) > 0) {
            for (const std::size_t size : kListReplySizes) {
                if (send(peer.Get(), reply.data(), size, MSG_NOSIGNAL) < 0) {
                    break;
                }
            }
        }
    }
}

pid_t StartEcho(const std::filesystem::path &path)
{
    const Fd listener = MakeSocket();
    const sockaddr_un address = AddressOf(path);
    if (bind(listener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(listener.Get(), 4) != 0) {
        FailErrno("bind " + path.string());
    }
    const pid_t pid = fork();
    if (pid == 0) {
        ServeEcho(listener);
    }
    if (pid < 0) {
        FailErrno("fork");
    }
    return pid;
}

/** Starts the service in a folder of its own; its log goes to the file "log" there. */
pid_t StartService(const std::string &program, const std::filesystem::path &folder)
{
    std::filesystem::create_directories(folder);
    const std::string state = "STATE_DIRECTORY=" + (folder / "state").string();
    const std::string runtime = "RUNTIME_DIRECTORY=" + (folder / "run").string();
    const std::string log = (folder / "log").string();
    const pid_t pid = fork();
    if (pid < 0) {
        FailErrno("fork");
    }
    if (pid > 0) {
        return pid;
    }
    const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    dup2(output, STDERR_FILENO);
    std::array<char *, 3> environment = {const_cast<char *>(state.c_str()),
                                         const_cast<char *>(runtime.c_str()), nullptr};
    std::array<char *, 2> arguments = {const_cast<char *>(program.c_str()), nullptr};
    execve(program.c_str(), arguments.data(), environment.data());
    _exit(127);
}

struct Summary
{
    double mMedian = 0;
    double mLeast = 0;
    double mMost = 0;
};

Summary Summarize(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return {values[values.size() / 2], values.front(), values.back()};
}

/** Time until a request of a host that waits from the first moment on is answered: registered. */
Summary MeasureStarts(const std::string &program, const std::filesystem::path &folder)
{
    std::vector<double> times;
    for (int start = 0; start < kStarts; ++start) {
        const auto place = folder / ("start" + std::to_string(start));
        const auto begin = Clock::now();
        const Child service(StartService(program, place));
        const Fd host = ConnectTo(place / "run" / "link.sock");
        RoundTrip(host);
        times.push_back(Micros(Clock::now() - begin).count());
    }
    return Summarize(times);
}

double MeasureRound(const Fd &peer)
{
    const auto begin = Clock::now();
    for (int request = 0; request < kRequestsPerRound; ++request) {
        RoundTrip(peer);
    }
    return Micros(Clock::now() - begin).count() / kRequestsPerRound;
}

struct RoundTrips
{
    Summary mService;
    Summary mEcho;
    Summary mRatio;
};

RoundTrips MeasureRoundTrips(const std::string &program, const std::filesystem::path &folder)
{
    const Child service(StartService(program, folder / "service"));
    const Child echo(StartEcho(folder / "echo.sock"));
    const Fd toService = ConnectTo(folder / "service" / "run" / "link.sock");
    const Fd toEcho = ConnectTo(folder / "echo.sock");
    for (int request = 0; request < kWarmUpRequests; ++request) {
        RoundTrip(toService);
        RoundTrip(toEcho);
    }
    std::vector<double> serviceTimes;
    std::vector<double> echoTimes;
    std::vector<double> ratios;
    for (int round = 0; round < kRounds; ++round) {
        serviceTimes.push_back(MeasureRound(toService));
        echoTimes.push_back(MeasureRound(toEcho));
        ratios.push_back(serviceTimes.back() / echoTimes.back());
    }
    return {Summarize(serviceTimes), Summarize(echoTimes), Summarize(ratios)};
}

void PrintText(const char *name, const Summary &summary, const char *unit)
{
    std::printf("%-52s %10.2f %s  (%.2f to %.2f)\n", name, summary.mMedian, unit, summary.mLeast,
                summary.mMost);
}

void PrintJson(const char *name, const Summary &summary, const char *unit)
{
    std::printf(
        "{\"figure\":\"%s\",\"median\":%.3f,\"least\":%.3f,\"most\":%.3f,\"unit\":\"%s\"}\n", name,
        summary.mMedian, summary.mLeast, summary.mMost, unit);
}

int Run(int argc, char **argv)
{
    const bool json = argc == 3 && std::string_view(argv[2]) == "--json";
    if (argc < 2 || (argc > 2 && !json)) {
        std::fprintf(stderr, "usage: parvane-bench SERVICE [--json]\n");
        return 2;
    }
    const std::string program = std::filesystem::absolute(argv[1]).string();
    if (access(program.c_str(), X_OK) != 0) {
        FailErrno(program);
    }
    const TemporaryFolder folder;
    const Summary starts = MeasureStarts(program, folder.Path());
    const RoundTrips trips = MeasureRoundTrips(program, folder.Path());

    const auto print = json ? PrintJson : PrintText;
    if (!json) {
        std::printf("median (least to most) of %d starts, and of %d rounds of %d requests\n",
                    kStarts, kRounds, kRequestsPerRound);
    }
    print("from exec to registered and the first list answered", starts, "us");
    print("sensor list (5 packets), round trip", trips.mService, "us");
    print("bare echo of 5 packets, round trip", trips.mEcho, "us");
    print("sensor list / bare echo", trips.mRatio, "x ");
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return Run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "parvane-bench: %s\n", error.what());
        return 1;
    }
}
