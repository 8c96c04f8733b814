#include "Ward.h"

#include <array>
#include <cerrno>
#include <exception>
#include <poll.h>
#include <stdexcept>
#include <sys/epoll.h>

#include "ErrnoText.h"
#include "Log.h"

namespace ParvaneHub {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

} // namespace

Ward::Ward(WatchListener &listener, std::function<void()> onTurnEnd)
    : mListener(listener), mOnTurnEnd(std::move(onTurnEnd)), mEpoll(::epoll_create1(EPOLL_CLOEXEC))
{
    if (!mEpoll) {
        throw std::runtime_error("epoll_create1: " + Parvane::ErrnoText(errno));
    }
    mEvents = Parvane::LoopSource::WatchFd(mEpoll.Get(), G_IO_IN, [this] { OnEvents(); });
}

void Ward::Set(const Watches &watches, const std::map<std::string, std::string> &savedSteps)
{
    std::map<std::string, std::string> steps = savedSteps;
    for (auto bed = mBeds.begin(); bed != mBeds.end();) {
        const auto wanted = watches.find(bed->first);
        const auto next = std::next(bed);
        if (wanted == watches.end() || wanted->second != bed->second->mWatch.GetSettings()) {
            steps[bed->first] = bed->second->mWatch.Steps();
            Remove(bed);
        }
        bed = next;
    }
    std::size_t index = 0;
    for (const auto &[name, settings] : watches) {
        const Watch::Place place{index, watches.size()};
        if (mBeds.count(name) == 0) {
            ++index;
            auto &bed = mBeds[name];
            bed = std::make_unique<Bed>(name, settings, steps[name], place, mListener);
            Arm(*bed);
        }
    }
    Rearm();
    mOnTurnEnd();
}

void Ward::OnEvents()
{
    constexpr int kMost = 64;
    std::array<epoll_event, kMost> events{};
    const int count = ::epoll_wait(mEpoll.Get(), events.data(), kMost, 0);
    for (int i = 0; i < count; ++i) {
        Turn(*static_cast<Bed *>(events.at(static_cast<std::size_t>(i)).data.ptr));
    }
    Rearm();
    mOnTurnEnd();
}

void Ward::OnDue()
{
    mArmed = Watch::SteadyTime::max();
    const auto now = steady_clock::now();
    while (!mDeadlines.empty() && mDeadlines.begin()->first <= now) {
        Turn(*mDeadlines.begin()->second);
    }
    Rearm();
    mOnTurnEnd();
}

void Ward::Turn(Bed &bed)
{
    try {
        bed.mWatch.Turn();
    } catch (const std::exception &failure) {
        Parvane::LogError(bed.mWatch.Name() + ": " + failure.what()); // the others go on
    }
    Arm(bed);
}

/** Has epoll and the timer know what the watch waits for. */
void Ward::Arm(Bed &bed)
{
    const int fd = bed.mWatch.Fd();
    const short awaits = bed.mWatch.Awaits();
    const bool isNew = bed.mWatch.TakeIsNewLink(); // the number may be that of the one before
    if (fd >= 0 && (isNew || fd != bed.mFd || awaits != bed.mAwaits)) {
        epoll_event event{};
        event.events = EPOLLIN | ((awaits & POLLOUT) != 0 ? EPOLLOUT : 0U);
        event.data.ptr = &bed;
        if (::epoll_ctl(mEpoll.Get(), EPOLL_CTL_ADD, fd, &event) != 0) {
            ::epoll_ctl(mEpoll.Get(), EPOLL_CTL_MOD, fd, &event); // it is there already
        }
        bed.mFd = fd;
        bed.mAwaits = awaits;
    }
    // Not in the past, or the one that cannot be helped is turned to for ever.
    const auto earliest = steady_clock::now() + milliseconds{1};
    const auto deadline = std::max(bed.mWatch.Deadline(), earliest);
    if (bed.mDeadline != deadline) {
        mDeadlines.erase({bed.mDeadline, &bed});
        bed.mDeadline = deadline;
        mDeadlines.insert({deadline, &bed});
    }
}

void Ward::Rearm()
{
    const auto next = mDeadlines.empty() ? Watch::SteadyTime::max() : mDeadlines.begin()->first;
    if (next == mArmed) {
        return;
    }
    mArmed = next;
    mTimer.Remove();
    if (next != Watch::SteadyTime::max()) {
        mTimer = Parvane::LoopSource::After(
            std::chrono::ceil<milliseconds>(next - steady_clock::now()), [this] { OnDue(); });
    }
}

void Ward::Remove(std::map<std::string, std::unique_ptr<Bed>>::iterator bed)
{
    mDeadlines.erase({bed->second->mDeadline, bed->second.get()});
    mBeds.erase(bed); // its descriptor leaves epoll as it is closed
}

} // namespace ParvaneHub
