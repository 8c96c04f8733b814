#pragma once

#include <string>

namespace ParvanePlatform {

/**
 * One attribute of a device that holds a number.
 *
 * Says in the log when it stops being one that can be used, when the reason for that changes, and
 * when it can be used again: a line each, however often it is read.
 */
class IioChannel
{
public:
    enum class State { Good, Missing, Unreadable, NotANumber, OutOfRange };
    enum class Kind { WholeNumber, Decimal };

    /** What the attribute may hold; both ends are allowed. */
    struct Range
    {
        double mMin = 0.0;
        double mMax = 0.0;
        Kind mKind = Kind::Decimal;
    };

    struct Value
    {
        State mState = State::Missing;
        /** Set when the state is good. */
        double mNumber = 0.0;
    };

    /** @param file  the attribute's name, such as "in_steps_input" */
    IioChannel(std::string file, const Range &range);

    /**
     * Reads the attribute of a device. An attribute that is missing is left to the caller, and not
     * logged. Never waits: what is not a regular file is not read.
     *
     * Blanks and line ends around the number are allowed. There is no exponent.
     *
     * @param device  the device's directory
     */
    Value Read(const std::string &device);

    /** The same for an attribute that a device need not have: that it has gone is logged. */
    Value ReadOptional(const std::string &device);

    const std::string &File() const { return mFile; }

private:
    Value Check(const std::string &path);
    void Tell(State state, const std::string &line);

    const std::string mFile;
    const Range mRange;
    /** What was told last. */
    State mTold = State::Good;
    bool mWasThere = false;
};

} // namespace ParvanePlatform
