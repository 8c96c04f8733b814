#include "Recording.h"

#include <algorithm>

namespace ParvanePlatform {

unsigned ColumnsOf(ContextItem item)
{
    unsigned columns = 0;
    for (std::size_t column = 0; column < kRecordingColumns; ++column) {
        columns |= InfoOf(column).mItem == item ? 1U << column : 0U;
    }
    return columns;
}

void GoOnFrom(const RecordingRow &before, const PedometerCounts &first, RecordingRow &row)
{
    if (row.mIsRestarted) {
        return;
    }
    for (std::size_t field = 0; field < kPedometerFields; ++field) {
        const unsigned bit = 1U << field;
        const double last = before.Pedometer(field);
        if ((row.mToldPedometer & bit) == 0) {
            row.Pedometer(field) = last;
        } else if ((before.mToldPedometer & bit) != 0 && field < kPedometerCounters) {
            row.Pedometer(field) =
                std::min(last + (row.Pedometer(field) - first[field].value_or(0.0)),
                         InfoOf(kFirstPedometerColumn + field).mRule.mMax);
        }
    }
    const unsigned stillKnown = before.mKnownPedometer & ~unsigned{row.mForgottenPedometer};
    const unsigned stillForgotten = before.mForgottenPedometer & ~unsigned{row.mKnownPedometer};
    row.mToldPedometer = static_cast<std::uint8_t>(row.mToldPedometer | before.mToldPedometer);
    row.mKnownPedometer = static_cast<std::uint8_t>(row.mKnownPedometer | stillKnown);
    row.mForgottenPedometer = static_cast<std::uint8_t>(row.mForgottenPedometer | stillForgotten);
    row.mIsRestarted = before.mIsRestarted;
}

} // namespace ParvanePlatform
