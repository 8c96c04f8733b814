#include "RelayRoad.h"

#include <sys/eventfd.h>
#include <utility>

namespace ParvaneHub {

using ParvaneHost::Error;
using ParvaneHost::Link;
using ParvaneHost::LinkError;
using ParvaneHost::Result;

RelayRoad::RelayRoad(ParvaneHost::WebTarget target)
    : mTarget(std::move(target)), mNews(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{}

Result<Link, Error> RelayRoad::Connect(const Parvane::Deadline &deadline,
                                       const Parvane::WaitOptions & /*options*/)
{
    if (!mIsTrying) {
        Begin();
    }
    if (!mFate->mIsOpen && !mFate->mEnd) {
        return Error{
            ParvaneHost::NoAnswer("the connection to " + mTarget.mAddress, deadline.Length())};
    }
    eventfd_t news = 0;
    ::eventfd_read(mNews.Get(), &news);
    mIsTrying = false;
    if (mFate->mEnd) {
        return Error{*mFate->mEnd};
    }
    return Link(mRelay->TakeSocket(), mTarget.mAddress, [fate = mFate] { return fate->mEnd; });
}

void RelayRoad::Leave()
{
    if (std::exchange(mIsTrying, false)) {
        mRelay.reset();
    }
}

void RelayRoad::Begin()
{
    eventfd_t news = 0;
    ::eventfd_read(mNews.Get(), &news);
    mIsTrying = true;
    mFate = std::make_shared<Fate>();
    const int fd = mNews.Get();
    mRelay = std::make_unique<ParvaneHost::WebRelay>(
        mTarget, ParvaneHost::WebRelay::Handlers{[fate = mFate, fd] {
                                                     fate->mIsOpen = true;
                                                     ::eventfd_write(fd, 1);
                                                 },
                                                 [fate = mFate, fd](const LinkError &error) {
                                                     fate->mEnd = error;
                                                     // An open link tells of its end itself.
                                                     if (!fate->mIsOpen) {
                                                         ::eventfd_write(fd, 1);
                                                     }
                                                 }});
}

} // namespace ParvaneHub
