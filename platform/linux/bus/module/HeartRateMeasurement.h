#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace ParvanePlatform {

/**
 * One value of the characteristic Heart Rate Measurement (0x2A37), as the Bluetooth Heart Rate
 * Service lays it out.
 */
struct HeartRateMeasurement
{
    /** What the strap knows of the skin under it. */
    enum class Contact { NotSupported, Lost, Detected };

    /** Beats per minute. */
    int mRate = 0;
    Contact mContact = Contact::NotSupported;
    /** Since the strap's counter was last set back; 65535 is where it stops. */
    std::optional<int> mEnergyKilojoules;
    /** From one beat to the next, the oldest first, in 1/1024 s. */
    std::vector<std::uint16_t> mIntervals;

    /** The newest interval, rounded to milliseconds; empty when there is none. */
    std::optional<int> PeakToPeakMs() const;
};

/**
 * Reads a value: one byte of flags, then what they announce, multi-byte numbers little-endian.
 *
 *     bit 0     rate in two bytes instead of one
 *     bits 1,2  contact detected; contact supported, without which bit 1 says nothing
 *     bit 3     energy follows, two bytes
 *     bit 4     one or more R-R intervals follow, two bytes each
 *     bits 5-7  reserved, not looked at
 *
 * @return nothing when the value is shorter than its flags announce. Half an interval after whole
 *         ones, as the end of a packet may cut it, is left out; bytes that nothing announces are not
 *         looked at
 */
std::optional<HeartRateMeasurement> ParseHeartRateMeasurement(std::span<const std::uint8_t> value);

} // namespace ParvanePlatform
