#include <array>
#include <filesystem>
#include <memory>
#include <string>

#include "Input.h"
#include "Require.h"
#include "SysfsBatteryMonitor.h"
#include "TestSupport.h"

// The files of a power supply, with ';' between them: type, status, capacity, scope, present. What
// the input does not have is not there.

using namespace ParvanePlatform;
using ParvaneFuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    constexpr std::array kFiles = {"type", "status", "capacity", "scope", "present"};
    static const TemporaryDirectory root;
    const std::string supply = root / "supply";
    std::filesystem::create_directory(supply);
    const auto texts = ParvaneFuzz::Split(ParvaneFuzz::TextOf(data, size), ';');
    for (std::size_t i = 0; i < kFiles.size(); ++i) {
        const std::string path = supply + '/' + kFiles[i];
        std::filesystem::remove(path);
        if (i < texts.size()) {
            WriteFile(path, texts[i]);
        }
    }
    BatterySettings settings;
    settings.mRoot = root.Path();
    const ManualClock clock;
    SysfsBatteryMonitor monitor(settings, clock, std::make_unique<ManualTimer>());
    int alerts = 0;
    const bool isThere = monitor.Start([&alerts] { ++alerts; });
    RunWhileBusy();
    Require(!isThere || texts[0].starts_with("Battery"), "a battery says that it is one");
    Require(alerts == 0 || (isThere && alerts == 1), "a battery that is low alerts once");
    Require(alerts == 0 || texts[1].starts_with("Discharging"), "a low battery discharges");
    return 0;
}
