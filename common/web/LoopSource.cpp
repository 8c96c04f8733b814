#include "LoopSource.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <memory>
#include <utility>

#include <glib-unix.h>

namespace Parvane {

namespace {

void Call(gpointer data) noexcept
{
    try {
        (*static_cast<LoopSource::Handler *>(data))();
    } catch (const std::exception &failure) {
        g_critical("main loop: %s", failure.what());
    }
}

gboolean OnDue(gpointer data) noexcept
{
    Call(data);
    return G_SOURCE_REMOVE;
}

gboolean OnFd(gint /*fd*/, GIOCondition /*events*/, gpointer data) noexcept
{
    Call(data);
    return G_SOURCE_CONTINUE;
}

gboolean OnStream(gpointer /*stream*/, gpointer data) noexcept
{
    Call(data);
    return G_SOURCE_CONTINUE;
}

void Release(gpointer data) noexcept
{
    delete static_cast<LoopSource::Handler *>(data);
}

/** The one type that all callbacks of sources are given as. */
template <typename Function>
GSourceFunc AsSourceFunction(Function *function)
{
    return reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(function));
}

} // namespace

LoopSource::LoopSource(LoopSource &&other) noexcept : mSource(std::exchange(other.mSource, nullptr))
{}

LoopSource &LoopSource::operator=(LoopSource &&other) noexcept
{
    if (this != &other) {
        Remove();
        mSource = std::exchange(other.mSource, nullptr);
    }
    return *this;
}

LoopSource LoopSource::Attach(GSource *source, GSourceFunc function, Handler handler)
{
    g_source_set_callback(source, function, new Handler(std::move(handler)), Release);
    g_source_attach(source, g_main_context_get_thread_default());
    return LoopSource(source);
}

LoopSource LoopSource::WatchFd(int fd, GIOCondition events, Handler handler)
{
    return Attach(g_unix_fd_source_new(fd, events), AsSourceFunction(OnFd), std::move(handler));
}

LoopSource LoopSource::After(std::chrono::milliseconds delay, Handler handler)
{
    constexpr std::chrono::milliseconds kLongest{std::numeric_limits<gint>::max()};
    const auto bounded = std::clamp(delay, std::chrono::milliseconds{0}, kLongest);
    return Attach(g_timeout_source_new(static_cast<guint>(bounded.count())), OnDue,
                  std::move(handler));
}

LoopSource LoopSource::WatchStream(GSource *source, Handler handler)
{
    return Attach(source, AsSourceFunction(OnStream), std::move(handler));
}

void LoopSource::Remove()
{
    if (GSource *source = std::exchange(mSource, nullptr); source != nullptr) {
        g_source_destroy(source);
        g_source_unref(source);
    }
}

bool LoopSource::IsActive() const
{
    return mSource != nullptr && g_source_is_destroyed(mSource) == FALSE;
}

} // namespace Parvane
