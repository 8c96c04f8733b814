#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "Session.h"

namespace ParvaneHost {

/** A session in a world of the test's: its time moves when the test says so, and packets are values. */
class PlayedSession
{
public:
    static constexpr Instant kBegin{std::chrono::milliseconds{1773489600000}}; // noon, UTC

    explicit PlayedSession(SessionOptions options = {}, Instant begin = kBegin);

    /** The present: so long after the beginning. */
    [[nodiscard]] Moment Now() const { return At(mElapsed); }

    /** Lets time pass up to then, and calls Advance() there and at each deadline before. */
    void Until(std::chrono::milliseconds elapsed);

    /** Lets time pass without a call: the process is held up. */
    void Sleep(std::chrono::milliseconds length) { mElapsed += length; }

    /** The watch sends the packets one after another, and is heard at once. */
    void Hear(const std::vector<Bytes> &packets);

    /** What was sent since it was asked before: hexadecimal, "12000003". */
    std::vector<std::string> Sent();

    /**
     * What was told since it was asked before: "linked", "lost: WHY", "attempt failed: WHY, 100 ms",
     * "hr 72", "hr 72 #3" for an answer, "steps 35 ?" for a total that does not settle them,
     * "list of 2 #1", "stopped activity #1", "failed hr #1: WHY", "nonsense: WHAT".
     */
    std::vector<std::string> Texts();

    /** The same, as it is. */
    std::vector<Told::Event> Events();

    Session mSession;

private:
    [[nodiscard]] Moment At(std::chrono::milliseconds elapsed) const;

    Instant mBegin;
    std::chrono::milliseconds mElapsed{0};
};

std::string TextOf(const Told::Event &event);

/** A reading of 1,000 s after the epoch; `first` has its flags and command. */
Bytes ReadingPacket(std::uint8_t first, std::uint8_t sensor, float value);
Bytes ListHeader(std::uint8_t first, std::uint8_t count);
Bytes ListEntry(std::uint8_t first, std::uint8_t position, std::uint8_t sensor);

} // namespace ParvaneHost
