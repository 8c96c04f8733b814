#pragma once

#include <chrono>
#include <optional>
#include <utility>

namespace ParvaneHost {

/**
 * Notices that the process was held up, so that packets may have been dropped: it comes long after it
 * wanted to, or takes very many packets without a wait in between. A value: no clock.
 */
class HoldUps
{
public:
    using SteadyTime = std::chrono::steady_clock::time_point;

    /** The process means to be back by then; nothing: not before something happens. */
    void Expect(std::optional<SteadyTime> back) { mBack = back; }

    /** It is back. @return whether that is late */
    [[nodiscard]] bool IsLate(SteadyTime now)
    {
        const auto expected = std::exchange(mBack, std::nullopt);
        return expected && now - *expected > kHeldUp;
    }

    /** It takes a packet. */
    void Take() { ++mInARow; }

    /** It has waited, so no packet is left. */
    void Wait() { mInARow = 0; }

    /** Whether so many packets were taken since it waited that they may be what is left of more. */
    [[nodiscard]] bool AreMany() const { return mInARow >= kMany; }

private:
    /** So late, the process was stopped, or had no time to read. */
    static constexpr std::chrono::milliseconds kHeldUp{1000};
    /** The link holds some hundreds. */
    static constexpr int kMany = 64;

    std::optional<SteadyTime> mBack;
    int mInARow = 0;
};

} // namespace ParvaneHost
