#include "LoopSource.h"

#include <algorithm>
#include <limits>
#include <memory>

#include "RunHandler.h"
#include "SeldomReady.h"

namespace Parvane {

namespace {

struct HandlerSource
{
    GSource mBase;
    LoopSource::Handler *mHandler; // owned: GLib allocates the source with malloc
};

void Call(const LoopSource::Handler &handler) noexcept
{
    RunHandler("main loop", handler);
}

const LoopSource::Handler &HandlerOf(GSource *source)
{
    return *reinterpret_cast<HandlerSource *>(source)->mHandler;
}

gboolean CallBeforeSleep(GSource *source, gint *timeoutMs) noexcept
{
    Call(HandlerOf(source));
    *timeoutMs = -1;
    return FALSE;
}

gboolean Dispatch(GSource *source, GSourceFunc /*callback*/, gpointer /*data*/) noexcept
{
    const bool isTimed = g_source_get_ready_time(source) >= 0; // once
    Call(HandlerOf(source));
    return isTimed ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

void Finalize(GSource *source) noexcept
{
    delete reinterpret_cast<HandlerSource *>(source)->mHandler;
}

GSourceFuncs gFunctions = {nullptr, nullptr, Dispatch, Finalize, nullptr, nullptr};
GSourceFuncs gBeforeSleepFunctions = {CallBeforeSleep, nullptr, Dispatch,
                                      Finalize,        nullptr, nullptr};

GSource *MakeSource(LoopSource::Handler handler, GSourceFuncs &functions = gFunctions)
{
    auto owned = std::make_unique<LoopSource::Handler>(std::move(handler));
    GSource *source = g_source_new(&functions, sizeof(HandlerSource));
    reinterpret_cast<HandlerSource *>(source)->mHandler = owned.release();
    // The loop is never run from inside a handler. Told so, GLib does not take the descriptor out of
    // the loop and put it back around each call, which would wake the loop once more each time.
    g_source_set_can_recurse(source, TRUE);
    return source;
}

gboolean OnStream(gpointer /*stream*/, gpointer handler) noexcept
{
    Call(*static_cast<LoopSource::Handler *>(handler));
    return G_SOURCE_CONTINUE;
}

void Delete(gpointer handler) noexcept
{
    delete static_cast<LoopSource::Handler *>(handler);
}

} // namespace

LoopSource::LoopSource(GSource *source) : mSource(source)
{
    g_source_attach(source, g_main_context_get_thread_default());
}

LoopSource::LoopSource(LoopSource &&other) noexcept
    : mSource(std::exchange(other.mSource, nullptr)),
      mSeldomId(std::exchange(other.mSeldomId, std::nullopt))
{}

LoopSource &LoopSource::operator=(LoopSource &&other) noexcept
{
    if (this != &other) {
        Remove();
        mSource = std::exchange(other.mSource, nullptr);
        mSeldomId = std::exchange(other.mSeldomId, std::nullopt);
    }
    return *this;
}

LoopSource LoopSource::WatchFd(int fd, GIOCondition events, Handler handler)
{
    GSource *source = MakeSource(std::move(handler));
    g_source_add_unix_fd(source, fd, events);
    return LoopSource(source);
}

LoopSource LoopSource::WatchSeldom(int fd, GIOCondition events, const Handler &handler)
{
    LoopSource source;
    source.mSeldomId = SeldomReady::Watch(fd, events, handler);
    return source.mSeldomId ? std::move(source) : WatchFd(fd, events, handler);
}

LoopSource LoopSource::WatchStream(GSource *stream, Handler handler)
{
    // The one type that the callbacks of all sources are given as.
    const auto function = reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(OnStream));
    g_source_set_callback(stream, function, new Handler(std::move(handler)), Delete);
    return LoopSource(stream);
}

LoopSource LoopSource::At(std::int64_t dueUs, Handler handler)
{
    GSource *source = MakeSource(std::move(handler));
    g_source_set_ready_time(source, std::max<std::int64_t>(dueUs, 0));
    return LoopSource(source);
}

LoopSource LoopSource::After(std::chrono::milliseconds delay, Handler handler)
{
    constexpr std::chrono::milliseconds kLongest{std::numeric_limits<gint>::max()};
    const std::chrono::microseconds bounded =
        std::clamp(delay, std::chrono::milliseconds{0}, kLongest);
    return At(g_get_monotonic_time() + bounded.count(), std::move(handler));
}

LoopSource LoopSource::BeforeSleep(Handler handler)
{
    GSource *source = MakeSource(std::move(handler), gBeforeSleepFunctions);
    // The loop asks its sources in the order of their priority and stops at the first priority that
    // is ready, so only the very first is asked in every turn.
    g_source_set_priority(source, std::numeric_limits<gint>::min());
    return LoopSource(source);
}

void LoopSource::Remove()
{
    if (GSource *source = std::exchange(mSource, nullptr); source != nullptr) {
        g_source_destroy(source);
        g_source_unref(source);
    }
    if (const auto id = std::exchange(mSeldomId, std::nullopt)) {
        SeldomReady::Forget(*id);
    }
}

bool LoopSource::IsActive() const
{
    return mSeldomId || (mSource != nullptr && g_source_is_destroyed(mSource) == FALSE);
}

} // namespace Parvane
