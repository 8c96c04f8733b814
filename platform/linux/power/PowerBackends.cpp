#include "PowerBackends.h"

#include "WakeLockBackend.h"

namespace ParvanePlatform {

std::vector<std::unique_ptr<PowerBackend>> MakePowerBackends(const PowerSettings &settings,
                                                             BusPowerParts *bus)
{
    using Lock = PowerSettings::Lock;
    std::vector<std::unique_ptr<PowerBackend>> backends;
    if (bus != nullptr && (settings.mLock == Lock::Auto || settings.mLock == Lock::Logind)) {
        backends.push_back(bus->MakeLogindBackend());
    }
    if (settings.mLock == Lock::Auto || settings.mLock == Lock::WakeLock) {
        backends.push_back(std::make_unique<WakeLockBackend>(settings.mRoot));
    }
    return backends;
}

} // namespace ParvanePlatform
