#include "Program.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h> // NOLINT(modernize-deprecated-headers): kill is POSIX
#include <stdexcept>
#include <string_view>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace ParvaneWatch {

namespace {

constexpr int kLimitMs = 20000;
constexpr const char *kEmulator = PARVANE_WATCH_EMULATOR; // words separated by bars, or nothing

struct Channel
{
    UniqueFd mReadEnd;
    UniqueFd mWriteEnd;
};

Channel MakePipe()
{
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

Channel MakeTerminal()
{
    winsize size{};
    size.ws_col = 80;
    size.ws_row = 24;
    int controller = -1;
    int terminal = -1;
    if (::openpty(&controller, &terminal, nullptr, nullptr, &size) != 0) {
        throw std::system_error(errno, std::generic_category(), "openpty");
    }
    ::fcntl(controller, F_SETFD, FD_CLOEXEC);
    ::fcntl(terminal, F_SETFD, FD_CLOEXEC);
    return {UniqueFd(controller), UniqueFd(terminal)};
}

/** Appends what comes next; false at the end. The end of a terminal reads as an error. */
bool ReadMore(int fd, std::string &text, std::size_t atMost)
{
    pollfd polled{fd, POLLIN, 0};
    if (poll(&polled, 1, kLimitMs) <= 0) {
        throw std::runtime_error("the program writes nothing; so far: " + text);
    }
    std::string buffer(atMost, '\0');
    const ssize_t size = ::read(fd, buffer.data(), buffer.size());
    if (size <= 0) {
        return false;
    }
    text.append(buffer, 0, static_cast<std::size_t>(size));
    return true;
}

std::string ReadAll(int fd)
{
    std::string text;
    while (ReadMore(fd, text, 4096)) {
    }
    return text;
}

std::vector<std::string> ProgramWords()
{
    std::vector<std::string> words;
    std::string_view emulator(kEmulator);
    while (!emulator.empty()) {
        const std::size_t end = emulator.find('|');
        words.emplace_back(emulator.substr(0, end));
        emulator.remove_prefix(end == std::string_view::npos ? emulator.size() : end + 1);
    }
    words.emplace_back(PARVANE_WATCH_PROGRAM);
    return words;
}

std::vector<std::string> EnvironmentWords(const std::map<std::string, std::string> &additions)
{
    std::vector<std::string> words;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        const std::string_view word(*entry);
        if (additions.find(std::string(word.substr(0, word.find('=')))) == additions.end()) {
            words.emplace_back(word);
        }
    }
    for (const auto &[name, value] : additions) {
        words.push_back(name);
        words.back().append("=").append(value);
    }
    return words;
}

std::vector<char *> Pointers(std::vector<std::string> &words)
{
    std::vector<char *> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string &word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

Program::Program(const std::vector<std::string> &arguments, const Options &options)
{
    std::vector<std::string> words = ProgramWords();
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environment = EnvironmentWords(options.mEnvironment);
    const std::vector<char *> argv = Pointers(words);
    const std::vector<char *> envp = Pointers(environment);

    Channel output = MakePipe();
    if (options.mOutputToFull) {
        output.mWriteEnd = UniqueFd(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    }
    Channel errors = options.mErrorsToTerminal ? MakeTerminal() : MakePipe();
    const UniqueFd input(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    mPid = ::fork();
    if (mPid == 0) {
        ::dup2(input.Get(), STDIN_FILENO);
        ::dup2(output.mWriteEnd.Get(), STDOUT_FILENO);
        ::dup2(errors.mWriteEnd.Get(), STDERR_FILENO);
        ::execvpe(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    if (mPid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    mOutput = std::move(output.mReadEnd);
    mErrors = std::move(errors.mReadEnd);
}

Program::~Program()
{
    if (mPid > 0) {
        ::kill(mPid, SIGKILL);
        ::waitpid(mPid, nullptr, 0);
    }
}

std::string Program::ReadLine()
{
    std::string line;
    while (!line.ends_with('\n')) {
        if (!ReadMore(mOutput.Get(), line, 1)) {
            return line;
        }
    }
    line.pop_back();
    return line;
}

std::string Program::ReadSome()
{
    std::string some;
    ReadMore(mOutput.Get(), some, 1);
    return some;
}

std::string Program::ReadOutput()
{
    return ReadAll(mOutput.Get());
}

std::string Program::ReadErrors()
{
    return ReadAll(mErrors.Get());
}

std::string Program::ReadErrorsUntil(const std::string &text)
{
    std::string all;
    while (all.find(text) == std::string::npos) {
        if (!ReadMore(mErrors.Get(), all, 4096)) {
            throw std::runtime_error("standard error ended too early: " + all);
        }
    }
    return all;
}

void Program::CloseOutput()
{
    mOutput.Reset();
}

void Program::Signal(int signal) const
{
    ::kill(mPid, signal);
}

int Program::Wait()
{
    // A descriptor of the process becomes readable at its end, which gives waiting a limit.
    const UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, mPid, 0)));
    pollfd polled{process.Get(), POLLIN, 0};
    if (process && poll(&polled, 1, kLimitMs) <= 0) {
        throw std::runtime_error("the program does not end");
    }
    int status = 0;
    ::waitpid(std::exchange(mPid, -1), &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace ParvaneWatch
