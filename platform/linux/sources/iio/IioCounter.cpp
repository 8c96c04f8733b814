#include "IioCounter.h"

#include <algorithm>

namespace ParvanePlatform {

IioCounter::Step IioCounter::Take(double value)
{
    if (!mCount) {
        mBaseValue = mBeginsAtZero ? value : 0.0;
    } else if (mIsRebased) {
        mBaseCount = *mCount;
        mBaseValue = value;
    } else if (value < mLast) {
        if (!mDip || value <= *mDip) {
            const bool isFirst = !mDip;
            mDip = value;
            return isFirst ? Step::Back : Step::On;
        }
        mBaseCount = *mCount;
        mBaseValue = *mDip;
    }
    mIsRebased = false;
    mDip.reset();
    mLast = value;
    // One subtraction from fixed points: the error of many small additions would add up.
    mCount = std::min(mBaseCount + (value - mBaseValue), mLimit);
    return Step::On;
}

} // namespace ParvanePlatform
