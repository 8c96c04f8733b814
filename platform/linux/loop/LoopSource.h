#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include <glib.h>

namespace ParvanePlatform {

/**
 * Owner of one source of the default main loop; the source ends with it.
 *
 * A handler may end its own source, and its owner, in its call: what it captures lives until it has
 * returned. An exception that leaves a handler is logged and goes no further. Main-loop thread only.
 */
class LoopSource
{
public:
    using Handler = std::function<void()>;

    /** Owns nothing. */
    LoopSource() = default;
    ~LoopSource() { Remove(); }

    LoopSource(const LoopSource &) = delete;
    LoopSource &operator=(const LoopSource &) = delete;
    LoopSource(LoopSource &&other) noexcept;
    LoopSource &operator=(LoopSource &&other) noexcept;

    /** Calls `handler` in each turn of the loop in which one of `events` is true of `fd`. */
    static LoopSource WatchFd(int fd, GIOCondition events, Handler handler);

    /**
     * The same, for a descriptor that is seldom ready: the loop's turns cost the same however many of
     * these there are (SeldomReady.h).
     */
    static LoopSource WatchSeldom(int fd, GIOCondition events, const Handler &handler);

    /** Calls `handler` once, in the next turn of the loop. */
    static LoopSource Post(Handler handler);

    /** Calls `handler` once, when the monotonic clock has reached `dueUs` microseconds. */
    static LoopSource At(std::int64_t dueUs, Handler handler);

    /** Calls `handler` in each turn before the loop goes to sleep; it never wakes the loop. */
    static LoopSource BeforeSleep(Handler handler);

    /** Ends the source; its handler is not called any more. Does nothing when there is none. */
    void Remove();

    /** True while the source can still fire. */
    bool IsActive() const;

private:
    explicit LoopSource(GSource *source) : mSource(source) {}

    GSource *mSource = nullptr;
    /** In place of mSource, for a descriptor that is seldom ready. */
    std::optional<std::uint64_t> mSeldomId;
};

/** A one-shot alarm that can be set again and again. An interface, so that tests need no time. */
class Timer
{
public:
    virtual ~Timer() = default;

    /** Calls `handler` once at `dueUs` of the monotonic clock; replaces an earlier setting. */
    virtual void Arm(std::int64_t dueUs, std::function<void()> handler) = 0;

    /** Ends the setting; there is no call and no wake-up any more. */
    virtual void Disarm() = 0;
};

/** A timer of the default main loop. */
class LoopTimer : public Timer
{
public:
    void Arm(std::int64_t dueUs, std::function<void()> handler) override;
    void Disarm() override;

private:
    LoopSource mSource;
};

} // namespace ParvanePlatform
