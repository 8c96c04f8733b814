#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Clock.h"
#include "Timer.h"

namespace ParvanePlatform {

/** A directory of its own for one test; gone with everything in it at the end. */
class TemporaryDirectory
{
public:
    TemporaryDirectory();
    ~TemporaryDirectory();

    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;

    const std::string &Path() const { return mPath; }
    std::string operator/(const std::string &name) const { return mPath + '/' + name; }

private:
    std::string mPath;
};

/** What a file holds; fails the test when it cannot be read. */
std::string ReadFile(const std::string &path);

/** Writes a file in place, as a shell would; fails the test when that does not work. */
void WriteFile(const std::string &path, std::string_view content);

bool FileExists(const std::string &path);

/** The mode of a file, without its kind. */
unsigned ModeOf(const std::string &path);

/** Takes what is written to standard error during its life, or until Take(). */
class StderrCapture
{
public:
    StderrCapture();
    ~StderrCapture();

    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;

    /** Ends the capture. @return everything that was written, log lines without their time */
    std::string Take();

private:
    bool mIsActive = true;
};

/**
 * Makes a directory as closed as it gets: mode 000, and the process is an ordinary user meanwhile,
 * because root may do everything.
 */
class ClosedDirectory
{
public:
    explicit ClosedDirectory(std::string path);
    ~ClosedDirectory();

    ClosedDirectory(const ClosedDirectory &) = delete;
    ClosedDirectory &operator=(const ClosedDirectory &) = delete;

private:
    std::string mPath;
    unsigned mMode;
    bool mWasRoot;
};

/** Turns the main loop until `done`; false when that takes longer than five seconds. */
bool RunUntil(const std::function<bool()> &done);

/** Turns the main loop for as long as there is something to do at once; never waits. */
void RunWhileBusy();

/** How long the main loop would sleep now, in milliseconds; -1 when nothing but events wakes it. */
int NextWakeMs();

/** A clock that is set by hand. */
class ManualClock : public Clock
{
public:
    std::int64_t MonotonicUs() const override { return mMonotonicUs; }
    std::int64_t WallMs() const override { return mWallMs; }

    /**
     * 0: what is due a moment later on this clock has long been due on that of the main loop, so
     * that timers of it fire at once.
     */
    std::int64_t mMonotonicUs = 0;
    /** 2026-01-31, 12:34:56.789 UTC. */
    std::int64_t mWallMs = 1769862896789;
};

/** A timer that fires when the test says so. */
class ManualTimer : public Timer
{
public:
    void Arm(std::int64_t dueUs, std::function<void()> handler) override
    {
        mDueUs = dueUs;
        mHandler = std::move(handler);
    }

    void Disarm() override
    {
        mDueUs.reset();
        mHandler = nullptr;
    }

    /** Calls the handler; the timer is not set any more, unless the handler sets it. */
    void Fire()
    {
        const auto handler = std::exchange(mHandler, nullptr);
        mDueUs.reset();
        handler();
    }

    std::optional<std::int64_t> mDueUs;

private:
    std::function<void()> mHandler;
};

} // namespace ParvanePlatform
