#include "SqliteLog.h"

#include <bit>
#include <cstddef>
#include <cstdint>

namespace ParvanePlatform {

namespace {

// The layout of the log is part of SQLite's file format and does not change.
constexpr std::uint32_t kMagic = 0x377f0682; // with its last bit set: sums of big-endian words
constexpr std::uint32_t kFormat = 3007000;
constexpr std::size_t kHeadBytes = 32;
constexpr std::size_t kSummedHeadBytes = 24;
constexpr std::size_t kFrameHeadBytes = 24;
constexpr std::size_t kSummedFrameHeadBytes = 8;
constexpr std::uint32_t kSmallestPage = 512;
constexpr std::uint32_t kLargestPage = 65536;

std::uint32_t WordAt(std::string_view bytes, std::size_t offset, bool isBigEndian)
{
    std::uint32_t word = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        const std::size_t position = offset + (isBigEndian ? i : 3 - i);
        word = word << 8U | static_cast<unsigned char>(bytes[position]);
    }
    return word;
}

/** A big-endian number, as all numbers in the file are. */
std::uint32_t NumberAt(std::string_view bytes, std::size_t offset)
{
    return WordAt(bytes, offset, true);
}

/** The sum that runs through the log from its head on. */
class RunningSum
{
public:
    explicit RunningSum(bool isBigEndian) : mIsBigEndian(isBigEndian) {}

    void Add(std::string_view bytes)
    {
        for (std::size_t i = 0; i + 8 <= bytes.size(); i += 8) {
            mFirst += WordAt(bytes, i, mIsBigEndian) + mSecond;
            mSecond += WordAt(bytes, i + 4, mIsBigEndian) + mFirst;
        }
    }

    bool IsAt(std::string_view bytes, std::size_t offset) const
    {
        return NumberAt(bytes, offset) == mFirst && NumberAt(bytes, offset + 4) == mSecond;
    }

private:
    bool mIsBigEndian;
    std::uint32_t mFirst = 0;
    std::uint32_t mSecond = 0;
};

} // namespace

SqliteLogState InspectSqliteLog(std::string_view log)
{
    if (log.empty()) {
        return SqliteLogState::Empty;
    }
    if (log.size() < kHeadBytes) {
        return SqliteLogState::NoLog;
    }
    const std::uint32_t magic = NumberAt(log, 0);
    const std::uint32_t pageBytes = NumberAt(log, 8);
    RunningSum sum((magic & 1U) != 0);
    sum.Add(log.substr(0, kSummedHeadBytes));
    if ((magic & ~1U) != kMagic || NumberAt(log, 4) != kFormat || pageBytes < kSmallestPage ||
        pageBytes > kLargestPage || !std::has_single_bit(pageBytes) ||
        !sum.IsAt(log, kSummedHeadBytes)) {
        return SqliteLogState::NoLog;
    }

    const std::string_view salt = log.substr(16, 8);
    const std::size_t frameBytes = kFrameHeadBytes + pageBytes;
    bool isValid = true;
    for (std::size_t at = kHeadBytes; log.size() - at >= frameBytes; at += frameBytes) {
        const std::string_view frame = log.substr(at, frameBytes);
        // A frame of another salt is left from before the log was last begun anew.
        const bool isOfThisLog = frame.substr(8, 8) == salt;
        const bool endsTransaction = NumberAt(frame, 4) != 0;
        if (!isValid) {
            if (isOfThisLog && endsTransaction) {
                return SqliteLogState::Damaged;
            }
            continue;
        }
        sum.Add(frame.substr(0, kSummedFrameHeadBytes));
        sum.Add(frame.substr(kFrameHeadBytes));
        isValid = isOfThisLog && sum.IsAt(frame, 16);
    }
    return SqliteLogState::Sound;
}

} // namespace ParvanePlatform
