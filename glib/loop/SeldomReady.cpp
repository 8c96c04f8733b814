#include "SeldomReady.h"

#include <array>
#include <sys/epoll.h>
#include <utility>

namespace Parvane {

namespace {

/** More than there are at a time; those that are left over are told in the next turn. */
constexpr int kMostInOneTurn = 8;

} // namespace

SeldomReady *SeldomReady::sInstance = nullptr;
SeldomReady::Id SeldomReady::sLastId = 0;

SeldomReady::SeldomReady() : mEpoll(::epoll_create1(EPOLL_CLOEXEC))
{
    if (mEpoll) {
        mSource = LoopSource::WatchFd(mEpoll.Get(), G_IO_IN, [] { CallReady(); });
    }
}

std::optional<SeldomReady::Id> SeldomReady::Watch(int fd, GIOCondition events,
                                                  LoopSource::Handler handler)
{
    Entry entry{fd, std::make_shared<const LoopSource::Handler>(std::move(handler))};
    const Id id = ++sLastId;
    epoll_event event = {};
    event.events = events; // the same bits for poll() and epoll
    event.data.u64 = id;
    if (sInstance == nullptr) {
        sInstance = new SeldomReady();
    }
    try {
        sInstance->mEntries.emplace(id, std::move(entry));
    } catch (...) {
        EndUnused();
        throw;
    }
    if (::epoll_ctl(sInstance->mEpoll.Get(), EPOLL_CTL_ADD, fd, &event) == 0) {
        return id;
    }
    sInstance->mEntries.erase(id);
    EndUnused();
    return std::nullopt;
}

void SeldomReady::Forget(Id id)
{
    const auto entry = sInstance->mEntries.find(id);
    ::epoll_ctl(sInstance->mEpoll.Get(), EPOLL_CTL_DEL, entry->second.mFd, nullptr);
    sInstance->mEntries.erase(entry);
    EndUnused();
}

void SeldomReady::EndUnused()
{
    if (sInstance->mEntries.empty()) {
        delete std::exchange(sInstance, nullptr);
    }
}

void SeldomReady::CallReady()
{
    std::array<epoll_event, kMostInOneTurn> ready = {};
    const int count = ::epoll_wait(sInstance->mEpoll.Get(), ready.data(), kMostInOneTurn, 0);
    for (int i = 0; i < count && sInstance != nullptr; ++i) {
        const uint64_t key =
            ready[static_cast<unsigned>(i)].data.u64; // it lies at no multiple of 8
        // An earlier call may have ended this one, and the set with it.
        const auto entry = sInstance->mEntries.find(key);
        if (entry != sInstance->mEntries.end()) {
            const auto handler = entry->second.mHandler;
            (*handler)(); // what it throws is logged above; the others are called in the next turn
        }
    }
}

} // namespace Parvane
