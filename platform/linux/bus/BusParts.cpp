#include "BusParts.h"

#include <dlfcn.h>
#include <filesystem>
#include <new>
#include <string>
#include <system_error>

#include "RuntimeLog.h"
#include "StartupError.h"

namespace ParvanePlatform {

namespace {

constexpr char kModule[] = "parvane-platform-bus.so";

[[noreturn]] void Refuse()
{
    const char *reason = ::dlerror();
    throw StartupError(std::string("cannot load ") + kModule + ": " +
                       (reason != nullptr ? reason : "unknown reason"));
}

/**
 * The module beside the library that this code lies in: by its whole path, since the loader looks up
 * a bare name from the caller of dlopen, which a sanitizer puts itself in the place of.
 */
std::filesystem::path ModulePath()
{
    Dl_info library = {};
    if (::dladdr(&kModule, &library) == 0 || library.dli_fname == nullptr) {
        return kModule;
    }
    return std::filesystem::path(library.dli_fname).replace_filename(kModule);
}

} // namespace

BusUse UseOfBus(const Settings &settings)
{
    if (settings.mSensors.mHeartRate == SourceKind::Ble ||
        settings.mPower.mLock == PowerSettings::Lock::Logind ||
        settings.mMemory.mMonitor == MemorySettings::Monitor::Glib ||
        settings.mBattery.mMonitor == BatterySettings::Monitor::UPower ||
        settings.mBluetooth.mAdapter == BluetoothSettings::Adapter::Bluez) {
        return BusUse::Required;
    }
    if (settings.mPower.mLock == PowerSettings::Lock::Auto ||
        settings.mMemory.mMonitor == MemorySettings::Monitor::Auto ||
        settings.mBattery.mMonitor == BatterySettings::Monitor::Auto) {
        return BusUse::IfThere;
    }
    return BusUse::None;
}

std::unique_ptr<BusParts> LoadBusParts(BusUse use)
{
    if (use == BusUse::None) {
        return nullptr;
    }
    const std::filesystem::path path = ModulePath();
    // For good: GIO cannot be unloaded.
    void *module = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    std::error_code ignored;
    if (module == nullptr && !std::filesystem::exists(path, ignored)) {
        if (use == BusUse::IfThere) {
            LogWarning("%s is missing: auto does without the system bus; the package "
                       "parvane-bluetooth has it",
                       path.c_str());
            return nullptr;
        }
        throw StartupError(path.string() +
                           " is missing, which the configuration asks for: the package " +
                           "parvane-bluetooth has it");
    }
    if (module == nullptr) {
        Refuse();
    }
    void *symbol = ::dlsym(module, kMakeBusPartsSymbol);
    if (symbol == nullptr) {
        Refuse();
    }
    std::unique_ptr<BusParts> parts(reinterpret_cast<MakeBusPartsFunction *>(symbol)());
    if (!parts) {
        throw std::bad_alloc();
    }
    return parts;
}

} // namespace ParvanePlatform
