#include "BleSource.h"

#include <utility>

#include <platform/context_manager.h>

#include "BluezObjects.h"
#include "ErrorCode.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

SensorReading ReadingOf(const HeartRateMeasurement &measurement)
{
    SensorReading reading;
    if (measurement.mContact == HeartRateMeasurement::Contact::Lost) {
        reading.Add(CONTEXT_HRM_HEART_RATE, BleSource::kNotWorn);
        return reading;
    }
    reading.Add(CONTEXT_HRM_HEART_RATE, measurement.mRate);
    if (const auto peakToPeakMs = measurement.PeakToPeakMs(); peakToPeakMs) {
        reading.Add(CONTEXT_HRM_PEAK_TO_PEAK, *peakToPeakMs);
    }
    return reading;
}

} // namespace

BleSource::BleSource(std::shared_ptr<SystemBus> bus, BleSettings settings, const Clock &clock,
                     std::unique_ptr<Timer> timer)
    : mSystemBus(std::move(bus)),
      mSettings(std::move(settings)),
      mClock(clock),
      mRetry(clock, std::move(timer)),
      mBus(
          mRetry, [this] { return mSystemBus->Share(); },
          [this](GDBusConnection *connection) { WatchBluez(connection); }, [this] { OnBusLost(); })
{}

BleSource::~BleSource()
{
    BleSource::Stop(ContextItem::HeartRate);
}

int BleSource::Start(ContextItem item)
{
    if (item != ContextItem::HeartRate) {
        return ErrorCode::kNotSupported;
    }
    if (!mIsStarted) {
        mIsStarted = true;
        mRetry.Reset();
        mBus.Start();
    }
    return 0;
}

void BleSource::Stop(ContextItem item)
{
    if (item != ContextItem::HeartRate || !mIsStarted) {
        return;
    }
    mIsStarted = false;
    mSession.reset();
    mBluez.reset();
    mBus.Stop();
}

std::optional<SensorReading> BleSource::Latest(ContextItem item) const
{
    const bool isFresh = mClock.MonotonicUs() - mLatestUs <= kFreshUs;
    return item == ContextItem::HeartRate && isFresh ? mLatest : std::nullopt;
}

std::string BleSource::Problem() const
{
    return mSystemBus->Connection() != nullptr ? "" : "source ble has no system bus";
}

void BleSource::WatchBluez(GDBusConnection *connection)
{
    mBluez = std::make_unique<Parvane::BusScope>(connection, Bluez::kName);
    mBluez->WatchOwner(Parvane::BusScope::AutoStart::No,
                       [this](const std::string &owner) { OnOwner(owner); });
}

void BleSource::OnBusLost()
{
    AbandonSession();
    mBluez.reset();
    OnState(Severity::Trouble, "the system bus is lost");
}

void BleSource::OnOwner(const std::string &owner)
{
    AbandonSession();
    if (owner.empty()) {
        OnState(Severity::Trouble, "BlueZ is not running");
        return;
    }
    mRetry.Reset();
    mHasSentMalformed = false;
    StrapObserver &observer = *this;
    mSession =
        std::make_unique<StrapSession>(mBluez->Connection(), owner, mSettings, mRetry, observer);
}

void BleSource::AbandonSession()
{
    if (mSession) {
        mSession->Abandon();
        mSession.reset();
        mLatest.reset();
    }
}

void BleSource::OnValue(std::span<const std::uint8_t> value)
{
    const auto measurement = ParseHeartRateMeasurement(value);
    if (!measurement) {
        if (!std::exchange(mHasSentMalformed, true)) {
            LogWarning("ble: the strap sends values that are no measurement; they are left out");
        }
        return;
    }
    const SensorReading reading = ReadingOf(*measurement);
    mLatest = reading;
    mLatestUs = mClock.MonotonicUs();
    if (mListener != nullptr) {
        mListener->OnReading(ContextItem::HeartRate, reading);
    }
}

void BleSource::OnState(Severity severity, const std::string &state)
{
    if (state == mState) {
        return;
    }
    mState = state;
    if (severity == Severity::Trouble) {
        LogWarning("ble: %s", state.c_str());
    } else {
        LogInfo("ble: %s", state.c_str());
    }
}

} // namespace ParvanePlatform
