#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include <glib.h>

namespace Parvane {

/**
 * Owner of one source of the main loop, or in another thread of the context that is its default there;
 * the source ends with it.
 *
 * A handler may end its own source, and its owner, in its call: what it captures lives until it has
 * returned. An exception that leaves a handler is logged and goes no further (RunHandler.h). In the thread
 * of the loop only.
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
     * these there are (SeldomReady.h). In the main thread only.
     */
    static LoopSource WatchSeldom(int fd, GIOCondition events, const Handler &handler);

    /** Takes a source over that is not attached; its callback is of type GPollableSourceFunc. */
    static LoopSource WatchStream(GSource *stream, Handler handler);

    /** Calls `handler` once, in the next turn of the loop. */
    static LoopSource Post(Handler handler) { return At(0, std::move(handler)); }

    /** Calls `handler` once, when the monotonic clock has reached `dueUs` microseconds. */
    static LoopSource At(std::int64_t dueUs, Handler handler);

    /** Calls `handler` once, when `delay` has passed. */
    static LoopSource After(std::chrono::milliseconds delay, Handler handler);

    /** Calls `handler` in each turn before the loop goes to sleep; it never wakes the loop. */
    static LoopSource BeforeSleep(Handler handler);

    /** Ends the source; its handler is not called any more. Does nothing when there is none. */
    void Remove();

    /** True while the source can still fire. */
    [[nodiscard]] bool IsActive() const;

private:
    /** Takes the reference over, and attaches the source. */
    explicit LoopSource(GSource *source);

    GSource *mSource = nullptr;
    /** In place of mSource, for a descriptor that is seldom ready. */
    std::optional<std::uint64_t> mSeldomId;
};

} // namespace Parvane
