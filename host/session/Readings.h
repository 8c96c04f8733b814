#pragma once

#include <chrono>
#include <optional>
#include <string_view>

#include "Messages.h"
#include "Observation.h"
#include "StepLedger.h"
#include "Told.h"

namespace ParvaneHost {

/**
 * What becomes of the readings that arrive: when each was sent, what it is worth, and the steps of the
 * day. A value: no clock. Throws what the ledger's zone throws.
 */
class Readings
{
public:
    /** @param countsSteps  whether totals are entered into the ledger */
    Readings(bool countsSteps, StepLedger ledger);

    /** There is a new link. @param run  see StepLedger::Connected() */
    void Connected(std::string_view run);

    /** The link is gone: what is there is from before that. */
    void Lost() { mObservations.Break(); }

    /** Readings may have been missed. */
    void Missed();

    /**
     * A reading arrived.
     *
     * @param now  by the phone's clock
     * @return what is to be told of it, but for its request; of a total that does not tell the steps,
     *         that it is not settled
     */
    [[nodiscard]] Told::NewReading Take(const Reading &reading, Instant now);

    [[nodiscard]] const Observations &Observed() const { return mObservations; }
    [[nodiscard]] const StepLedger &Steps() const { return mLedger; }

private:
    [[nodiscard]] Instant SentAt(std::optional<Instant> watchTime, Instant now);
    void Count(Told::NewReading &told, Instant now);

    bool mCountsSteps;
    StepLedger mLedger;
    Observations mObservations;
    std::optional<Instant> mWatchTime; // of the last reading
    std::optional<std::chrono::milliseconds>
        mLag;        // of the fastest reading, behind the watch's clock
    int mUnsure = 0; // totals in a row that did not tell the steps
};

} // namespace ParvaneHost
