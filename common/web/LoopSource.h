#pragma once

#include <chrono>
#include <functional>

#include <glib.h>

namespace Parvane {

/**
 * Owner of one source of the thread's main context, the one that was pushed as its default; the source
 * ends with it.
 *
 * A handler may end its own source, and its owner, in its call: what it captures lives until it has
 * returned. An exception that leaves a handler is told to GLib's log and goes no further.
 * In the thread of that context only.
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

    /** Calls `handler` once, when `delay` has passed. */
    static LoopSource After(std::chrono::milliseconds delay, Handler handler);

    /** Calls `handler` once, in the next turn of the loop. */
    static LoopSource Post(Handler handler) { return After({}, std::move(handler)); }

    /** Takes a source over that is not attached; its callback is of type GPollableSourceFunc. */
    static LoopSource WatchStream(GSource *source, Handler handler);

    /** Ends the source; its handler is not called any more. Does nothing when there is none. */
    void Remove();

    /** True while the source can still fire. */
    [[nodiscard]] bool IsActive() const;

private:
    explicit LoopSource(GSource *source) : mSource(source) {}
    static LoopSource Attach(GSource *source, GSourceFunc function, Handler handler);

    GSource *mSource = nullptr;
};

} // namespace Parvane
