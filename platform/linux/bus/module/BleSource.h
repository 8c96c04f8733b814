#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "BusScope.h"
#include "BusWatch.h"
#include "Clock.h"
#include "HeartRateMeasurement.h"
#include "RetryTimer.h"
#include "SensorSource.h"
#include "StrapSession.h"
#include "SystemBus.h"
#include "Timer.h"

namespace ParvanePlatform {

/**
 * Heart rate from a Bluetooth strap, through BlueZ.
 *
 * While the item is started: waits for the bus and for BlueZ, each life of which gets a StrapSession
 * (it searches, connects and subscribes), and turns the strap's measurements into readings: the rate,
 * and the peak-to-peak value when there is one; kNotWorn alone when the strap has lost contact with
 * the skin. That something of it is away is no failure. Otherwise it has no timer, no subscription and
 * no call on the bus.
 *
 * Log lines tell each change of state, across starts, once.
 */
class BleSource : public SensorSource, private StrapObserver
{
public:
    /** The heart rate of a strap that is not worn. */
    static constexpr int kNotWorn = -3;

    /** How long a measurement counts as the present one; straps send one a second. */
    static constexpr std::int64_t kFreshUs = 10'000'000;

    /** `clock` is borrowed for the life of the source; `timer` is for pauses between attempts. */
    BleSource(std::shared_ptr<SystemBus> bus, BleSettings settings, const Clock &clock,
              std::unique_ptr<Timer> timer);
    ~BleSource() override;

    BleSource(const BleSource &) = delete;
    BleSource &operator=(const BleSource &) = delete;

    void SetListener(SensorListener *listener) override { mListener = listener; }

    /** @return 0 for the heart rate, else -95 */
    int Start(ContextItem item) override;
    void Stop(ContextItem item) override;

    /** The strap's newest measurement; empty once it is older than kFreshUs, or the strap is lost. */
    std::optional<SensorReading> Latest(ContextItem item) const override;

    /** Connects to the bus to see whether there is one, which takes half a second at most. */
    std::string Problem() const override;

private:
    void WatchBluez(GDBusConnection *connection);
    void OnBusLost();
    void OnOwner(const std::string &owner);
    void AbandonSession();

    void OnValue(std::span<const std::uint8_t> value) override;
    void OnStrapLost() override { mLatest.reset(); }
    void OnState(Severity severity, const std::string &state) override;

    const std::shared_ptr<SystemBus> mSystemBus;
    const BleSettings mSettings;
    const Clock &mClock;
    SensorListener *mListener = nullptr;
    bool mIsStarted = false;
    std::optional<SensorReading> mLatest;
    std::int64_t mLatestUs = 0;
    std::string mState;
    bool mHasSentMalformed = false;
    RetryTimer mRetry;
    BusWatch mBus;
    /** Who BlueZ is. */
    std::unique_ptr<Parvane::BusScope> mBluez;
    std::unique_ptr<StrapSession> mSession;
};

} // namespace ParvanePlatform
