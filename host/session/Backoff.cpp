#include "Backoff.h"

#include <algorithm>
#include <utility>

namespace ParvaneHost {

using std::chrono::milliseconds;

Backoff::Backoff(milliseconds first, milliseconds longest)
    : mFirst(std::max(first, milliseconds{1})), mLongest(std::max(longest, mFirst)), mNext(mFirst)
{}

milliseconds Backoff::Next()
{
    const milliseconds doubled = mNext > mLongest / 2 ? mLongest : mNext * 2;
    return std::exchange(mNext, doubled);
}

void Backoff::Reset()
{
    mNext = mFirst;
}

} // namespace ParvaneHost
