#include "SensorSources.h"

#include "base/LoopSource.h"
#include "context_manager/Recording.h"
#include "context_manager/ReplaySource.h"

namespace ParvanePlatform {

namespace {

/** A watch without sensors: every item can be started, and nothing comes. */
class SilentSource : public SensorSource
{
public:
    void SetListener(SensorListener * /*listener*/) override {}
    void Start(ContextItem /*item*/) override {}
    void Stop(ContextItem /*item*/) override {}
    std::optional<SensorReading> Latest(ContextItem /*item*/) const override
    {
        return std::nullopt;
    }
};

} // namespace

std::unique_ptr<SensorSource> MakeSensorSource(const Settings &settings, const Clock &clock)
{
    if (!settings.mTraceFile.empty()) {
        return std::make_unique<ReplaySource>(
            LoadRecording(settings.mTraceFile),
            ReplayOptions{settings.mTraceSpeed, settings.mTraceLoop}, clock,
            std::make_unique<LoopTimer>());
    }
    return std::make_unique<SilentSource>();
}

} // namespace ParvanePlatform
