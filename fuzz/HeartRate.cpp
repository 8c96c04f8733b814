#include <algorithm>
#include <vector>

#include "HeartRateMeasurement.h"
#include "Input.h"
#include "Require.h"

// The bytes that a heart-rate strap sends.

using ParvaneFuzz::Require;
using ParvanePlatform::HeartRateMeasurement;

namespace {

constexpr std::uint8_t kWideRate = 0x01;
constexpr std::uint8_t kHasEnergy = 0x08;
constexpr std::uint8_t kHasIntervals = 0x10;

void AddWord(std::vector<std::uint8_t> &bytes, int word)
{
    bytes.push_back(static_cast<std::uint8_t>(word & 0xFF));
    bytes.push_back(static_cast<std::uint8_t>(word >> 8));
}

/** The bytes that the measurement was read from, as far as it says something about them. */
std::vector<std::uint8_t> Encode(std::uint8_t flags, const HeartRateMeasurement &measurement)
{
    std::vector<std::uint8_t> bytes = {flags};
    if ((flags & kWideRate) != 0) {
        AddWord(bytes, measurement.mRate);
    } else {
        bytes.push_back(static_cast<std::uint8_t>(measurement.mRate));
    }
    if (measurement.mEnergyKilojoules) {
        AddWord(bytes, *measurement.mEnergyKilojoules);
    }
    for (const std::uint16_t interval : measurement.mIntervals) {
        AddWord(bytes, interval);
    }
    return bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const auto measurement = ParvanePlatform::ParseHeartRateMeasurement({data, size});
    if (!measurement) {
        return 0;
    }
    const std::uint8_t flags = data[0];
    Require(measurement->mRate >= 0 && measurement->mRate <= 65535, "the rate fits its bytes");
    Require(measurement->mEnergyKilojoules.has_value() == ((flags & kHasEnergy) != 0),
            "the energy is there when the flags say so");
    Require(measurement->mIntervals.empty() == ((flags & kHasIntervals) == 0),
            "intervals are there when the flags say so");
    const auto newest = measurement->PeakToPeakMs();
    Require(newest.has_value() == !measurement->mIntervals.empty() && newest.value_or(0) >= 0 &&
                newest.value_or(0) <= 64000,
            "the newest interval is below 64 s");
    const std::vector<std::uint8_t> bytes = Encode(flags, *measurement);
    Require(bytes.size() <= size && std::equal(bytes.begin(), bytes.end(), data),
            "the measurement says what the bytes say");
    return 0;
}
