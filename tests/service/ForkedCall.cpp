#include "ForkedCall.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace Parvane {

namespace {

constexpr unsigned kLimitSeconds = 30;

enum ExitStatus : int { Sound = 0, ExpectationFailed = 1, MemoryLeaked = 2 };

bool LeaksMemory()
{
#if defined(__SANITIZE_ADDRESS__)
    return __lsan_do_recoverable_leak_check() != 0;
#else
    return false;
#endif
}

void WriteAll(int file, const std::string &text)
{
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t size = write(file, text.data() + written, text.size() - written);
        if (size <= 0) {
            return;
        }
        written += static_cast<std::size_t>(size);
    }
}

std::string ReadAll(int file)
{
    std::string text;
    std::array<char, 4096> part{};
    ssize_t size = 0;
    while ((size = read(file, part.data(), part.size())) > 0) {
        text.append(part.data(), static_cast<std::size_t>(size));
    }
    return text;
}

[[noreturn]] void RunInChild(int result, const std::function<std::string()> &run)
{
    const rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    alarm(kLimitSeconds); // what loops for ever ends by this signal
    WriteAll(result, run());
    int status = testing::Test::HasFailure() ? ExpectationFailed : Sound;
    if (status == Sound && LeaksMemory()) {
        status = MemoryLeaked;
    }
    std::fflush(stdout);
    _exit(status);
}

std::string HowItEnded(int status)
{
    if (WIFSIGNALED(status)) {
        return WTERMSIG(status) == SIGALRM
                   ? "has not ended in time"
                   : "was ended by signal " + std::to_string(WTERMSIG(status));
    }
    switch (WEXITSTATUS(status)) {
    case ExpectationFailed:
        return "failed the expectations above";
    case MemoryLeaked:
        return "leaked memory";
    default:
        return "ended with status " + std::to_string(WEXITSTATUS(status));
    }
}

} // namespace

std::string CallForked(const std::string &point, const std::function<std::string()> &run)
{
    std::fflush(stdout);
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        ADD_FAILURE() << "no pipe";
        return "";
    }
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        RunInChild(ends[1], run);
    }
    close(ends[1]);
    std::string result = ReadAll(ends[0]);
    close(ends[0]);
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        ADD_FAILURE() << "no child process";
    } else if (status != 0) {
        ADD_FAILURE() << point << " " << HowItEnded(status);
    }
    return result;
}

} // namespace Parvane
