#include <cmath>
#include <cstring>
#include <locale>
#include <memory>
#include <sstream>
#include <string>

#include "Input.h"
#include "PedometerController.h"
#include "PedometerData.h"
#include "Require.h"
#include "ScriptedPlatform.h"
#include "TimeUtil.h"

// The stored time and text of the day's steps: four bytes, and the text. The controller restores
// them, counts a reading and stores the sum.

using namespace Parvane;
using ParvaneFuzz::Require;

namespace {

constexpr const char *kValueKey = "Parvane/data/pedometer/value";
constexpr const char *kTimeKey = "Parvane/data/pedometer/time";

PedometerData Read(const std::string &text)
{
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    PedometerData data;
    stream >> data;
    return data;
}

std::string Write(const PedometerData &data)
{
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream << data;
    return stream.str();
}

bool AreEqual(const PedometerData &a, const PedometerData &b)
{
    return Write(a) == Write(b);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    ParvaneFuzz::Input input(data, size);
    const std::int32_t time = input.Int();
    const std::string text(ParvaneFuzz::TextOf(data, size).substr(std::min<std::size_t>(size, 4)));
    const std::string storable = text.substr(0, text.find('\0'));
    const PedometerData stored = Read(text);
    Require(std::isfinite(stored.mDistance) && std::isfinite(stored.mSpeed),
            "what is read is finite");
    Require(AreEqual(Read(Write(stored)), stored), "what is written is read as the same");

    ScriptedPlatform platform;
    platform.SetPreference(kValueKey, storable.c_str());
    platform.SetPreference(kTimeKey, time);
    const auto controller = std::make_shared<PedometerController>(nullptr);
    const PedometerData restored = controller->RestorePedometerData();
    Require(AreEqual(restored, Read(storable)) && restored.mTimestamp == time,
            "the controller restores what is stored");

    const PedometerData step(10, 7.5F, 1, time, 10, 0, 5);
    controller->OnSensorDataUpdated(std::make_shared<PedometerData>(step));
    // The ends of the first and the last day that 32 bits hold lie outside of them.
    const bool isOfTheDay = TimeUtil::GetEndOfDay(time) >= time;
    const PedometerData total = isOfTheDay ? restored + step : step;
    Require(platform.StringPreference(kValueKey) == Write(total), "a reading of the day is added");
    Require(platform.IntegerPreference(kTimeKey) == time, "the time is that of the reading");
    return 0;
}
