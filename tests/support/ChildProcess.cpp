#include "ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sstream>
#include <string_view>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace Parvane {

namespace {

constexpr const char *kEmulator = PARVANE_EMULATOR; // words separated by bars, or nothing

/** Puts the emulator before a command of this build, if the build is for another machine. */
void Emulate(std::vector<std::string> &command, ChildProcess::Variables &environment)
{
    const std::string emulator = kEmulator;
    if (emulator.empty() || !command.front().starts_with(PARVANE_BUILD_FOLDER "/")) {
        return;
    }
    std::vector<std::string> words;
    std::istringstream bars(emulator);
    for (std::string word; std::getline(bars, word, '|');) {
        words.push_back(word);
    }
    // What is loaded first is for the program, and not for the emulator.
    if (const auto preload = environment.extract("LD_PRELOAD"); !preload.empty()) {
        words.insert(words.end(), {"-E", "LD_PRELOAD=" + preload.mapped()});
    }
    command.insert(command.begin(), words.begin(), words.end());
}

std::vector<char *> Pointers(std::vector<std::string> &texts)
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
void SetStream(int stream, int fd)
{
    if (fd == ChildProcess::kClosed) {
        ::close(stream);
        return;
    }
    ::dup2(fd == ChildProcess::kNothing ? ::open("/dev/null", O_RDWR | O_CLOEXEC) : fd, stream);
}

} // namespace

ChildProcess::Variables ChildProcess::OwnEnvironment()
{
    Variables variables;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        const std::size_t end = text.find('=');
        variables.emplace(text.substr(0, end),
                          end == std::string_view::npos ? "" : text.substr(end + 1));
    }
    return variables;
}

ChildProcess::ChildProcess(const Start &start)
{
    std::vector<std::string> command = start.mCommand;
    Variables environment = start.mEnvironment;
    Emulate(command, environment);
    std::vector<std::string> variables;
    for (const auto &[name, value] : environment) {
        variables.push_back(name);
        variables.back().append("=").append(value);
    }
    const std::vector<char *> argv = Pointers(command);
    const std::vector<char *> envp = Pointers(variables);
    mPid = ::fork();
    if (mPid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (mPid > 0) {
        return;
    }
    // Nothing stays behind when the tests are broken off.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    SetStream(STDIN_FILENO, start.mInput);
    SetStream(STDOUT_FILENO, start.mOutput);
    SetStream(STDERR_FILENO, start.mErrors);
    if (start.mPrepare) {
        start.mPrepare();
    }
    ::execvpe(argv.front(), argv.data(), envp.data());
    ::_exit(127);
}

ChildProcess::~ChildProcess()
{
    Kill();
}

ChildProcess &ChildProcess::operator=(ChildProcess &&other) noexcept
{
    if (this != &other) {
        Kill();
        mPid = std::exchange(other.mPid, -1);
    }
    return *this;
}

void ChildProcess::Signal(int number) const
{
    if (mPid > 0) {
        ::kill(mPid, number);
    }
}

std::optional<int> ChildProcess::WaitForEnd(std::chrono::milliseconds limit)
{
    constexpr std::chrono::milliseconds kPause{2};
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (::waitpid(mPid, &status, WNOHANG) != mPid) {
        if (std::chrono::steady_clock::now() > deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(kPause);
    }
    mPid = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

void ChildProcess::Kill() noexcept
{
    if (mPid > 0) {
        ::kill(mPid, SIGKILL);
        ::waitpid(mPid, nullptr, 0);
    }
}

} // namespace Parvane
