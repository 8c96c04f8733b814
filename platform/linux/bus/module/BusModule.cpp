#include <new>

#include "BleSource.h"
#include "BluezAdapter.h"
#include "BusParts.h"
#include "Clock.h"
#include "GlibMemoryMonitor.h"
#include "LogindBackend.h"
#include "RunHandler.h"
#include "RuntimeLog.h"
#include "SystemBus.h"
#include "Timer.h"
#include "UPowerMonitor.h"

namespace ParvanePlatform {

namespace {

class Parts : public BusParts
{
public:
    std::unique_ptr<SensorSource> MakeBleSource(const BleSettings &settings) override
    {
        return std::make_unique<BleSource>(mBus, settings, Time(), std::make_unique<LoopTimer>());
    }

    std::unique_ptr<PowerBackend> MakeLogindBackend() override
    {
        return std::make_unique<LogindBackend>(mBus);
    }

    std::unique_ptr<AlertMonitor> MakeGlibMemoryMonitor() override
    {
        return std::make_unique<GlibMemoryMonitor>(mBus, Time(), std::make_unique<LoopTimer>());
    }

    std::unique_ptr<AlertMonitor> MakeUPowerMonitor() override
    {
        return std::make_unique<UPowerMonitor>(mBus, Time(), std::make_unique<LoopTimer>());
    }

    std::unique_ptr<AddressSource> MakeBluezAdapter(const BluetoothSettings &settings) override
    {
        return std::make_unique<BluezAdapter>(mBus, settings);
    }

private:
    /** The clock of the parts, which may outlive this object. */
    static const Clock &Time()
    {
        static const SystemClock clock;
        return clock;
    }

    /** Shared by the parts, each of which keeps its own reference. */
    std::shared_ptr<SystemBus> mBus = std::make_shared<SystemBus>();
};

void LogFailure(const char *line) noexcept
{
    LogError("%s", line);
}

} // namespace

} // namespace ParvanePlatform

extern "C" __attribute__((visibility("default"))) ParvanePlatform::BusParts *
parvane_make_bus_parts();

ParvanePlatform::BusParts *parvane_make_bus_parts()
{
    Parvane::SetHandlerLog(ParvanePlatform::LogFailure); // the module has a RunHandler() of its own
    return new (std::nothrow) ParvanePlatform::Parts();
}
