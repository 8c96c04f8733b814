#include "GatewayRoad.h"

#include <cerrno>
#include <functional>
#include <mutex>
#include <optional>
#include <poll.h>
#include <sys/eventfd.h>
#include <utility>

#include "WebRelay.h"
#include "WebStream.h"

namespace ParvaneHost {

namespace {

using Function = std::function<void()>;

gboolean OnPosted(gpointer function) noexcept
{
    (*static_cast<Function *>(function))();
    return G_SOURCE_REMOVE;
}

void ReleaseFunction(gpointer function) noexcept
{
    delete static_cast<Function *>(function);
}

} // namespace

/** What has become of an attempt; both threads have it. */
struct GatewayRoad::Attempt
{
    void Opened()
    {
        const std::lock_guard lock(mMutex);
        ::eventfd_write(mNews.Get(), 1);
    }

    void Ended(const LinkError &error)
    {
        const std::lock_guard lock(mMutex);
        mEnd = error;
        ::eventfd_write(mNews.Get(), 1);
    }

    std::optional<LinkError> End()
    {
        const std::lock_guard lock(mMutex);
        return mEnd;
    }

    const UniqueFd mNews{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    std::mutex mMutex;
    UniqueFd mSocket; // the user's end, from before mNews is readable
    std::optional<LinkError> mEnd;
};

/** The thread, with one relay at a time: the watch has one phone. */
class GatewayRoad::Worker
{
public:
    Worker() : mThread([this] { Run(); }) {}

    ~Worker()
    {
        Post([this] {
            mNext = nullptr;
            mIsEnding = true;
            if (mRelay) {
                mRelay->Leave();
            } else {
                g_main_loop_quit(mLoop.get());
            }
        });
        mThread.join();
    }

    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;

    void Begin(const WebTarget &target, const std::shared_ptr<Attempt> &attempt)
    {
        Post([this, target, attempt] {
            mNext = [this, target, attempt] { Make(target, attempt); };
            if (!mRelay) {
                MakeNext();
            }
        });
    }

    /** Ends the attempt, which nobody waits for any more. */
    void Drop(const std::shared_ptr<Attempt> &attempt)
    {
        Post([this, attempt] {
            if (attempt == mAttempt && mRelay) {
                mRelay->Leave();
            } else {
                mNext = nullptr;
            }
        });
    }

private:
    struct ContextRelease
    {
        void operator()(GMainContext *context) const noexcept { g_main_context_unref(context); }
    };
    struct LoopRelease
    {
        void operator()(GMainLoop *loop) const noexcept { g_main_loop_unref(loop); }
    };

    void Post(Function function)
    {
        GSource *source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, OnPosted, new Function(std::move(function)), ReleaseFunction);
        g_source_attach(source, mContext.get());
        g_source_unref(source);
    }

    void Run()
    {
        g_main_context_push_thread_default(mContext.get());
        g_main_loop_run(mLoop.get());
        while (g_main_context_iteration(mContext.get(),
                                        static_cast<gboolean>(Parvane::WebStream::Ending() > 0)) !=
                   FALSE ||
               Parvane::WebStream::Ending() > 0) {
        }
        g_main_context_pop_thread_default(mContext.get());
    }

    void Make(const WebTarget &target, const std::shared_ptr<Attempt> &attempt)
    {
        mAttempt = attempt;
        mRelay = std::make_unique<WebRelay>(
            target, WebRelay::Handlers{[attempt] { attempt->Opened(); },
                                       [this, attempt](const LinkError &error) {
                                           attempt->Ended(error);
                                           mRelay.reset();
                                           MakeNext();
                                       }});
        const std::lock_guard lock(attempt->mMutex);
        attempt->mSocket = mRelay->TakeSocket();
    }

    void MakeNext()
    {
        if (const auto next = std::exchange(mNext, nullptr)) {
            next();
        } else if (mIsEnding) {
            g_main_loop_quit(mLoop.get());
        }
    }

    std::unique_ptr<GMainContext, ContextRelease> mContext{g_main_context_new()};
    std::unique_ptr<GMainLoop, LoopRelease> mLoop{g_main_loop_new(mContext.get(), FALSE)};
    // Of the thread alone.
    std::unique_ptr<WebRelay> mRelay;
    std::shared_ptr<Attempt> mAttempt; // of the relay
    Function mNext;                    // when the relay has ended
    bool mIsEnding = false;
    std::thread mThread; // the last: it uses the others
};

GatewayRoad::GatewayRoad(WebTarget target) : mTarget(std::move(target)) {}

GatewayRoad::~GatewayRoad() = default;

Result<Link, Error> GatewayRoad::Connect(const Deadline &deadline, const WaitOptions &options)
{
    if (!mAttempt) {
        if (!mWorker) {
            mWorker = std::make_unique<Worker>();
        }
        mAttempt = std::make_shared<Attempt>();
        mWorker->Begin(mTarget, mAttempt);
    }
    switch (Parvane::WaitFor(mAttempt->mNews.Get(), POLLIN, deadline, options)) {
    case Parvane::WaitResult::Interrupted:
        return Error{Interrupted{}};
    case Parvane::WaitResult::TimedOut:
        return Error{NoAnswer("the connection to " + mTarget.mAddress, deadline.Length())};
    case Parvane::WaitResult::Failed:
        return Error{LinkError{LinkError::Reason::CannotConnect, errno, mTarget.mAddress}};
    case Parvane::WaitResult::Ready:
        break;
    }
    const auto attempt = std::exchange(mAttempt, nullptr);
    if (auto error = attempt->End()) {
        return Error{*std::move(error)};
    }
    return Link(std::move(attempt->mSocket), mTarget.mAddress,
                [attempt] { return attempt->End(); });
}

int GatewayRoad::Fd() const
{
    return mAttempt ? mAttempt->mNews.Get() : -1;
}

void GatewayRoad::Leave()
{
    if (mAttempt) {
        mWorker->Drop(std::exchange(mAttempt, nullptr));
    }
}

} // namespace ParvaneHost
