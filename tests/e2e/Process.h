#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

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

using Environment = std::map<std::string, std::string>;

/**
 * A program under test: started with exactly the environment that it is given, standard output and
 * standard error in files, killed and waited for by its owner.
 */
class Process
{
public:
    /**
     * Output goes to `folder`, which must exist, under names that no other Process has. A program of
     * this build is started by the emulator, if the build is for another machine; it must be the first
     * word for that.
     */
    Process(const std::vector<std::string> &command, const Environment &environment,
            const std::filesystem::path &folder);
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    ~Process();

    pid_t Pid() const { return mPid; }

    std::string StandardOutput() const;
    std::string StandardError() const;

    /** Whether `text` appears on standard error within a few seconds. */
    bool HasLogged(const std::string &text) const;

    void Signal(int number) const;

    /** Exit status; 128 + number for a signal; nothing if it does not end within the time. */
    std::optional<int> WaitForEnd(std::chrono::seconds limit = std::chrono::seconds(20));

private:
    std::filesystem::path mOutput;
    std::filesystem::path mError;
    pid_t mPid = -1;
};

std::string ReadFile(const std::filesystem::path &path);
void WriteFile(const std::filesystem::path &path, const std::string &text);

/** Asks every few milliseconds; false when `limit` has passed. */
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(20));

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
