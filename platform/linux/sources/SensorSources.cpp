#include "SensorSources.h"

#include <utility>

#include "IioSource.h"
#include "ManualSource.h"
#include "RecordingReader.h"
#include "ReplaySource.h"
#include "StartupError.h"
#include "Timer.h"

namespace ParvanePlatform {

namespace {

/** An item without a sensor: it can be started, and nothing comes. */
class SilentSource : public SensorSource
{
public:
    void SetListener(SensorListener * /*listener*/) override {}
    int Start(ContextItem /*item*/) override { return 0; }
    void Stop(ContextItem /*item*/) override {}
    std::optional<SensorReading> Latest(ContextItem /*item*/) const override
    {
        return std::nullopt;
    }
    std::string Problem() const override { return "no source configured"; }
};

Recording ReadRecordings(const ReplaySettings &settings)
{
    try {
        return LoadRecordings(settings.mFiles);
    } catch (const StartupError &failure) {
        throw StartupError(settings.mNamedBy + failure.what());
    }
}

std::shared_ptr<SensorSource> MakeSource(SourceKind kind, const Settings &settings,
                                         const Clock &clock, BusSensorParts *bus)
{
    switch (kind) {
    case SourceKind::None:
        return std::make_shared<SilentSource>();
    case SourceKind::Replay:
        return std::make_shared<ReplaySource>(
            ReadRecordings(settings.mReplay),
            ReplayOptions{settings.mReplay.mSpeed, settings.mReplay.mLoop}, clock,
            std::make_unique<LoopTimer>());
    case SourceKind::Iio:
        return std::make_shared<IioSource>(settings.mIio, clock, std::make_unique<LoopTimer>());
    case SourceKind::Ble:
        return bus != nullptr ? bus->MakeBleSource(settings.mBle) : nullptr;
    case SourceKind::Manual:
        return std::make_shared<ManualSource>();
    }
    return nullptr;
}

} // namespace

SensorSources::SensorSources(const Settings &settings, const Clock &clock, BusSensorParts *bus)
{
    const std::map<ContextItem, SourceKind> kinds = {
        {ContextItem::HeartRate, settings.mSensors.mHeartRate},
        {ContextItem::Pedometer, settings.mSensors.mPedometer},
        {ContextItem::Activity, settings.mSensors.mActivity},
        {ContextItem::Gesture, settings.mSensors.mGesture}};
    std::map<SourceKind, std::shared_ptr<SensorSource>> made;
    for (const auto &[item, kind] : kinds) {
        if (!made.contains(kind)) {
            made[kind] = MakeSource(kind, settings, clock, bus);
        }
        Assign(item, kind, made[kind]);
    }
    if (made.contains(SourceKind::Manual)) {
        mManual = static_cast<ManualSource *>(made[SourceKind::Manual].get());
    }
    if (made.contains(SourceKind::Replay)) {
        mReplay = static_cast<ReplaySource *>(made[SourceKind::Replay].get());
    }
}

void SensorSources::Assign(ContextItem item, SourceKind kind, std::shared_ptr<SensorSource> source)
{
    mEntries[item] = Entry{kind, std::move(source)};
}

void SensorSources::SetListener(SensorListener *listener)
{
    for (const auto &[item, entry] : mEntries) {
        if (entry.mSource) {
            entry.mSource->SetListener(listener);
        }
    }
}

SensorSource *SensorSources::SourceOf(ContextItem item) const
{
    const auto found = mEntries.find(item);
    return found != mEntries.end() ? found->second.mSource.get() : nullptr;
}

SourceKind SensorSources::KindOf(ContextItem item) const
{
    const auto found = mEntries.find(item);
    return found != mEntries.end() ? found->second.mKind : SourceKind::None;
}

} // namespace ParvanePlatform
