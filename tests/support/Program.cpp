#include "Program.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Parvane {

namespace {

constexpr std::chrono::milliseconds kLimit{30000};

/** Appends what comes next; false at the end. The end of a terminal reads as an error. */
bool ReadMore(int fd, std::string &text, std::size_t atMost)
{
    pollfd polled{fd, POLLIN, 0};
    if (poll(&polled, 1, static_cast<int>(kLimit.count())) <= 0) {
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

ChildProcess::Start StartOf(const std::vector<std::string> &command,
                            const Program::Options &options, int output, int errors)
{
    ChildProcess::Start start;
    start.mCommand = command;
    start.mEnvironment = options.mEnvironment;
    start.mEnvironment.merge(ChildProcess::OwnEnvironment());
    start.mOutput = output;
    start.mErrors = errors;
    const auto close = [&options](int stream, int &fd) {
        if (std::find(options.mClosed.begin(), options.mClosed.end(), stream) !=
            options.mClosed.end()) {
            fd = ChildProcess::kClosed;
        }
    };
    close(STDIN_FILENO, start.mInput);
    close(STDOUT_FILENO, start.mOutput);
    close(STDERR_FILENO, start.mErrors);
    return start;
}

} // namespace

Program::Channel Program::MakePipe()
{
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

/** Nothing comes out of it; whatever is written finds it full. */
Program::Channel Program::OpenFull()
{
    return {{}, UniqueFd(::open("/dev/full", O_WRONLY | O_CLOEXEC))};
}

Program::Channel Program::MakeTerminal()
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

Program::Program(const std::vector<std::string> &command, const Options &options)
    : Program(command, options, options.mOutputToFull ? OpenFull() : MakePipe(),
              options.mErrorsToTerminal ? MakeTerminal() : MakePipe())
{}

Program::Program(const std::vector<std::string> &command, const Options &options, Channel &&output,
                 Channel &&errors)
    : mOutput(std::move(output.mReadEnd)),
      mErrors(std::move(errors.mReadEnd)),
      mProcess(StartOf(command, options, output.mWriteEnd.Get(), errors.mWriteEnd.Get()))
{}

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
    mProcess.Signal(signal);
}

int Program::Wait()
{
    const auto status = mProcess.WaitForEnd(kLimit);
    if (!status) {
        throw std::runtime_error("the program does not end");
    }
    return *status;
}

} // namespace Parvane
