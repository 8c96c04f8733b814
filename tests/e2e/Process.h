#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "ChildProcess.h"

/** A folder that goes with its owner. */
class TemporaryFolder
{
public:
    TemporaryFolder();
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;
    ~TemporaryFolder();

    const std::filesystem::path &Path() const { return mPath; }

private:
    std::filesystem::path mPath;
};

using Environment = Parvane::ChildProcess::Variables;

/** What a sanitizer or the coverage of a test build needs from outside. */
Environment PassedOn();

/**
 * A program under test: started with exactly the environment that it is given, standard output and
 * standard error in files, killed and waited for by its owner.
 */
class Process
{
public:
    /**
     * Output goes to `folder`, which must exist, under names that no other Process has.
     */
    Process(const std::vector<std::string> &command, const Environment &environment,
            const std::filesystem::path &folder);
    pid_t Pid() const { return mChild.Pid(); }

    std::string StandardOutput() const;
    std::string StandardError() const;

    /** Whether `text` appears on standard error within a few seconds. */
    bool HasLogged(const std::string &text) const;

    void Signal(int number) const { mChild.Signal(number); }

    /** Exit status; minus the number of a signal; nothing if it does not end within the time. */
    std::optional<int> WaitForEnd(std::chrono::seconds limit = std::chrono::seconds(30))
    {
        return mChild.WaitForEnd(limit);
    }

private:
    std::string mFiles; // their path without the ending
    Parvane::ChildProcess mChild;
};

std::string ReadFile(const std::filesystem::path &path);
void WriteFile(const std::filesystem::path &path, const std::string &text);

/** Asks every few milliseconds; false when `limit` has passed. */
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(30));

void PauseBriefly();

template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        PauseBriefly();
    }
    return true;
}
