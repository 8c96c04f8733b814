#include "Support.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace ParvaneBench {

namespace {

constexpr unsigned kConnectStepUs = 50;
constexpr int kAnswerTimeoutSeconds = 20;

std::vector<char *> PointersTo(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string &text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/** Between fork and exec: nothing here needs memory. */
[[noreturn]] void Execute(const std::vector<char *> &arguments,
                          const std::vector<char *> &environment, const char *log,
                          const Child::Start &start)
{
    if (log[0] != '\0') {
        dup2(open(log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
    }
    if (start.mOutput >= 0) {
        dup2(start.mOutput, STDOUT_FILENO);
    }
    if (start.mError >= 0) {
        dup2(start.mError, STDERR_FILENO);
    }
    BindTo(start.mCpu);
    // Nothing stays behind when the measuring is broken off.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    execvpe(arguments.front(), arguments.data(), environment.data());
    _exit(127);
}

Fd ConnectWhenReady(const std::filesystem::path &path, int type)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string text = path.string();
    if (text.size() >= sizeof address.sun_path) {
        Fail("the path is too long for a socket: " + text);
    }
    std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
    Fd peer;
    WaitUntil("connect " + text, kConnectStepUs, [&peer, &address, type] {
        peer = Fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
        return connect(peer.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) ==
               0;
    });
    return peer;
}

} // namespace

void Fail(const std::string &what)
{
    throw std::runtime_error(what);
}

void FailErrno(const std::string &what)
{
    Fail(what + ": " + std::generic_category().message(errno));
}

double MicrosSince(Clock::time_point begin)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

Fd::~Fd()
{
    if (mFd >= 0) {
        close(mFd);
    }
}

TemporaryFolder::TemporaryFolder(const std::filesystem::path &parent)
{
    std::string name = (parent / "parvane-bench.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        FailErrno("mkdtemp " + name);
    }
    mPath = name;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

Child::Child(const Start &start) : mPid(-1)
{
    auto arguments = start.mArguments;
    auto environment = start.mEnvironment;
    const auto argumentPointers = PointersTo(arguments);
    const auto environmentPointers = PointersTo(environment);
    const std::string log = start.mLog.string();
    mPid = fork();
    if (mPid == 0) {
        Execute(argumentPointers, environmentPointers, log.c_str(), start);
    }
    if (mPid < 0) {
        FailErrno("fork");
    }
}

Child::~Child()
{
    kill(mPid, SIGTERM);
    waitpid(mPid, nullptr, 0);
}

std::vector<int> AllowedCpus()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0) {
        FailErrno("sched_getaffinity");
    }
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(static_cast<std::size_t>(cpu), &set)) {
            cpus.push_back(cpu);
        }
    }
    return cpus;
}

void BindTo(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(cpu), &set);
    sched_setaffinity(0, sizeof set, &set);
}

Fd ConnectTo(const std::filesystem::path &path)
{
    Fd peer = ConnectWhenReady(path, SOCK_SEQPACKET);
    // A lost answer ends the measuring, not the patience of who started it.
    const timeval timeout = {kAnswerTimeoutSeconds, 0};
    setsockopt(peer.Get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    return peer;
}

void WaitForListener(const std::filesystem::path &path)
{
    ConnectWhenReady(path, SOCK_STREAM);
}

void SendMessage(const Fd &peer, const void *data, std::size_t size)
{
    if (send(peer.Get(), data, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) {
        FailErrno("send");
    }
}

void ReceiveMessage(const Fd &peer, std::size_t size)
{
    std::array<std::uint8_t, 64> buffer{};
    const ssize_t length = recv(peer.Get(), buffer.data(), buffer.size(), 0);
    if (length < 0) {
        FailErrno("recv");
    }
    if (static_cast<std::size_t>(length) != size) {
        Fail("an answer of " + std::to_string(size) + " bytes was due, " + std::to_string(length) +
             " came");
    }
}

std::filesystem::path FastFolder()
{
    constexpr char kMemory[] = "/dev/shm";
    return access(kMemory, W_OK) == 0 ? std::filesystem::path(kMemory)
                                      : std::filesystem::temp_directory_path();
}

std::int64_t NumberIn(const std::filesystem::path &file, const std::string &key)
{
    std::ifstream stream(file);
    std::string word;
    while (stream >> word) {
        std::int64_t number = 0;
        if (word == key && stream >> number) {
            return number;
        }
    }
    Fail("no " + key + " in " + file.string());
}

} // namespace ParvaneBench
