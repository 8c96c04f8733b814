#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace ParvanePlatform {

/** Whether colour sequences are kept. */
enum class LogColours { Keep, Strip };

/**
 * The text of a log line, whose form is the service's own (its Log.h).
 *
 * Appends to a buffer of fixed size and counts what it would have needed. Borrows the buffer.
 */
class LogText
{
public:
    LogText(char *buffer, std::size_t size) : mBuffer(buffer), mSize(size) {}

    void Add(char character)
    {
        if (mNeeded < mSize) {
            mBuffer[mNeeded] = character;
        }
        ++mNeeded;
    }

    void Add(std::string_view text)
    {
        if (mNeeded < mSize) {
            std::memcpy(mBuffer + mNeeded, text.data(), std::min(text.size(), mSize - mNeeded));
        }
        mNeeded += text.size();
    }

    /** Adds a time in UTC: "2026-01-31T12:34:56.789Z". */
    void AddTime(std::int64_t wallMs);

    /** Adds decimal digits, at least `width` of them. */
    void AddNumber(unsigned value, int width);

    /**
     * Adds a message so that it stays one line: line ends at its end are dropped, everything else that
     * is not printable (common/Printable.h) becomes \n, \r, \t or \xhh.
     */
    void AddMessage(std::string_view text, LogColours colours);

    /** Above the size of the buffer when something was cut off. */
    std::size_t Needed() const { return mNeeded; }

private:
    char *mBuffer;
    std::size_t mSize;
    std::size_t mNeeded = 0;
};

} // namespace ParvanePlatform
