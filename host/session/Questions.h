#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <list>
#include <optional>
#include <utility>

#include "Messages.h"
#include "Question.h"

namespace ParvaneHost {

/**
 * The questions in flight, in the order in which they were asked, and what is to be sent of them. None
 * is there twice. A value: no clock, no I/O.
 */
class Questions
{
public:
    using SteadyTime = Question::SteadyTime;
    using Iterator = std::list<Question>::iterator;

    /** @param firstFlags  of the first question that is sent; the following ones take turns */
    explicit Questions(std::uint8_t firstFlags) : mFlags(firstFlags) {}

    [[nodiscard]] Iterator Begin() { return mAll.begin(); }
    [[nodiscard]] Iterator End() { return mAll.end(); }

    /** End(): that is not asked. */
    [[nodiscard]] Iterator Find(Command command, Sensor sensor);

    [[nodiscard]] bool IsAnythingAskedOf(Sensor sensor) const;

    /**
     * Adds a question, or joins the one that is there for the same: that has the later of the two
     * time-outs, and is ours only as long as nobody outside asks it.
     *
     * @param within  from `now` on, the time for its answer
     * @return the question, and whether it is a new one
     */
    std::pair<Iterator, bool> Ask(const Request &request, bool isOurs, SteadyTime now,
                                  std::chrono::milliseconds within);

    /** Takes it out: it has ended. */
    Question Take(Iterator question);

    /** Takes those that were sent, as their link is gone, and with it the packets that were not. */
    std::list<Question> TakeSent();

    /** Takes back what is ours and asked of the sensor; but a stop remains. */
    void ForgetOurs(Sensor sensor);

    /** Sends it, or sends it once more: with the same flags, as either of the two may be answered. */
    void Send(Question &question, SteadyTime now);

    /** What is to be sent, in order; nothing when that is all. */
    std::optional<Bytes> NextPacket();

    /** When the next one is late, or asked again. */
    [[nodiscard]] std::optional<SteadyTime> Deadline() const;

private:
    [[nodiscard]] std::uint8_t NextFlags();

    std::list<Question> mAll;
    std::deque<Bytes> mPackets;
    std::uint8_t mFlags;
    RequestId mLastId = 0;
};

} // namespace ParvaneHost
