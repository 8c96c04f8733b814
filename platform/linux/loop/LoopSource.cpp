#include "LoopSource.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

#include "RuntimeLog.h"
#include "SeldomReady.h"

namespace ParvanePlatform {

namespace {

constexpr std::int64_t kNever = -1;

/** What a source carries; its own object, because GLib allocates the source with malloc. */
struct Work
{
    LoopSource::Handler mFire;
    LoopSource::Handler mBeforeSleep;
    std::int64_t mDueUs = kNever;
    bool mOnce = false;
};

struct WorkSource
{
    GSource mBase;
    Work *mWork;
};

Work &WorkOf(GSource *source)
{
    return *reinterpret_cast<WorkSource *>(source)->mWork;
}

void Call(const LoopSource::Handler &handler) noexcept
{
    try {
        handler();
    } catch (const std::exception &failure) {
        LogError("main loop: %s", failure.what());
    } catch (...) {
        LogError("main loop: unknown exception");
    }
}

bool IsDue(GSource *source)
{
    const std::int64_t dueUs = WorkOf(source).mDueUs;
    return dueUs != kNever && g_source_get_time(source) >= dueUs;
}

gboolean Prepare(GSource *source, gint *timeoutMs) noexcept
{
    const Work &work = WorkOf(source);
    if (work.mBeforeSleep) {
        Call(work.mBeforeSleep);
    }
    *timeoutMs = -1;
    if (work.mDueUs == kNever) {
        return FALSE;
    }
    const std::int64_t leftUs = work.mDueUs - g_source_get_time(source);
    if (leftUs <= 0) {
        return TRUE;
    }
    // Rounded up: a loop that wakes a little early would only go to sleep again.
    *timeoutMs = static_cast<gint>(
        std::min<std::int64_t>((leftUs + 999) / 1000, std::numeric_limits<gint>::max()));
    return FALSE;
}

gboolean Check(GSource *source) noexcept
{
    return IsDue(source) ? TRUE : FALSE;
}

gboolean Dispatch(GSource *source, GSourceFunc /*callback*/, gpointer /*data*/) noexcept
{
    const Work &work = WorkOf(source);
    const bool once = work.mOnce;
    Call(work.mFire);
    return once ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

void Finalize(GSource *source) noexcept
{
    delete reinterpret_cast<WorkSource *>(source)->mWork;
}

GSourceFuncs gWorkFunctions = {Prepare, Check, Dispatch, Finalize, nullptr, nullptr};

GSource *MakeSource(std::unique_ptr<Work> work, int priority)
{
    GSource *source = g_source_new(&gWorkFunctions, sizeof(WorkSource));
    reinterpret_cast<WorkSource *>(source)->mWork = work.release();
    g_source_set_priority(source, priority);
    // The loop is never run from inside a handler. Told so, GLib does not take the descriptor out of
    // the loop and put it back around each call, which would wake the loop once more each time.
    g_source_set_can_recurse(source, TRUE);
    return source;
}

} // namespace

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
    auto work = std::make_unique<Work>();
    work->mFire = std::move(handler);
    GSource *source = MakeSource(std::move(work), G_PRIORITY_DEFAULT);
    g_source_add_unix_fd(source, fd, events);
    g_source_attach(source, nullptr);
    return LoopSource(source);
}

LoopSource LoopSource::WatchSeldom(int fd, GIOCondition events, const Handler &handler)
{
    LoopSource source;
    source.mSeldomId = SeldomReady::Watch(fd, events, handler);
    return source.mSeldomId ? std::move(source) : WatchFd(fd, events, handler);
}

LoopSource LoopSource::Post(Handler handler)
{
    return At(0, std::move(handler));
}

LoopSource LoopSource::At(std::int64_t dueUs, Handler handler)
{
    auto work = std::make_unique<Work>();
    work->mFire = std::move(handler);
    work->mDueUs = std::max<std::int64_t>(dueUs, 0);
    work->mOnce = true;
    GSource *source = MakeSource(std::move(work), G_PRIORITY_DEFAULT);
    g_source_attach(source, nullptr);
    return LoopSource(source);
}

LoopSource LoopSource::BeforeSleep(Handler handler)
{
    auto work = std::make_unique<Work>();
    work->mBeforeSleep = std::move(handler);
    // The loop asks its sources in the order of their priority and stops at the first priority that
    // is ready, so only the very first is asked in every turn.
    GSource *source = MakeSource(std::move(work), std::numeric_limits<gint>::min());
    g_source_attach(source, nullptr);
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

void LoopTimer::Arm(std::int64_t dueUs, std::function<void()> handler)
{
    mSource = LoopSource::At(dueUs, std::move(handler));
}

void LoopTimer::Disarm()
{
    mSource.Remove();
}

} // namespace ParvanePlatform
