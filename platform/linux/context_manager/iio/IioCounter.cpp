#include "IioCounter.h"

#include <algorithm>
#include <utility>

namespace ParvanePlatform {

IioCounter::Step IioCounter::Take(double value)
{
    const bool isRebased = std::exchange(mIsRebased, false);
    const bool isBack = mCount && !isRebased && value < mLast;
    if (mCount && (isRebased || isBack)) {
        mBaseCount = *mCount;
        mBaseValue = value;
    } else if (!mCount && mBeginsAtZero) {
        mBaseValue = value;
    }
    mLast = value;
    // One subtraction from fixed points: the error of many small additions would add up.
    mCount = std::min(mBaseCount + (value - mBaseValue), mLimit);
    return isBack ? Step::Back : Step::On;
}

} // namespace ParvanePlatform
