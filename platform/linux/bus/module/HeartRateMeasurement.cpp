#include "HeartRateMeasurement.h"

#include <cstddef>

namespace ParvanePlatform {

namespace {

constexpr unsigned kWideRate = 1U << 0U;
constexpr unsigned kContactDetected = 1U << 1U;
constexpr unsigned kContactSupported = 1U << 2U;
constexpr unsigned kHasEnergy = 1U << 3U;
constexpr unsigned kHasIntervals = 1U << 4U;

constexpr int kIntervalsPerSecond = 1024;
constexpr int kMsPerSecond = 1000;

/** Takes bytes from the front of a value. */
class Reader
{
public:
    explicit Reader(std::span<const std::uint8_t> rest) : mRest(rest) {}

    bool Has(std::size_t count) const { return mRest.size() >= count; }

    std::uint16_t Byte()
    {
        const std::uint16_t byte = mRest.front();
        mRest = mRest.subspan(1);
        return byte;
    }

    std::uint16_t Word()
    {
        const unsigned low = Byte();
        const unsigned high = Byte();
        return static_cast<std::uint16_t>(low | (high << 8U));
    }

private:
    std::span<const std::uint8_t> mRest;
};

HeartRateMeasurement::Contact ContactOf(unsigned flags)
{
    if ((flags & kContactSupported) == 0) {
        return HeartRateMeasurement::Contact::NotSupported;
    }
    return (flags & kContactDetected) != 0 ? HeartRateMeasurement::Contact::Detected
                                           : HeartRateMeasurement::Contact::Lost;
}

} // namespace

std::optional<int> HeartRateMeasurement::PeakToPeakMs() const
{
    if (mIntervals.empty()) {
        return std::nullopt;
    }
    return (mIntervals.back() * kMsPerSecond + kIntervalsPerSecond / 2) / kIntervalsPerSecond;
}

std::optional<HeartRateMeasurement> ParseHeartRateMeasurement(std::span<const std::uint8_t> value)
{
    Reader reader(value);
    if (!reader.Has(1)) {
        return std::nullopt;
    }
    const unsigned flags = reader.Byte();
    const bool isWide = (flags & kWideRate) != 0;
    const bool hasEnergy = (flags & kHasEnergy) != 0;
    const bool hasIntervals = (flags & kHasIntervals) != 0;
    if (!reader.Has((isWide ? 2U : 1U) + (hasEnergy ? 2U : 0U) + (hasIntervals ? 2U : 0U))) {
        return std::nullopt;
    }
    HeartRateMeasurement measurement;
    measurement.mContact = ContactOf(flags);
    measurement.mRate = isWide ? reader.Word() : reader.Byte();
    if (hasEnergy) {
        measurement.mEnergyKilojoules = reader.Word();
    }
    while (hasIntervals && reader.Has(2)) {
        measurement.mIntervals.push_back(reader.Word());
    }
    return measurement;
}

} // namespace ParvanePlatform
