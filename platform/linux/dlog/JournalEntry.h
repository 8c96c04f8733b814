#pragma once

#include <array>
#include <cstddef>
#include <string_view>
#include <sys/uio.h>

#include "LogPriority.h"

namespace ParvanePlatform {

struct LogPlace;

/**
 * The fields of one entry of the journal, as "NAME=value": SYSLOG_IDENTIFIER, PRIORITY, PARVANE_TAG,
 * CODE_FILE, CODE_FUNC and CODE_LINE when the place is known, and MESSAGE.
 *
 * Tag and message are without colour sequences and control characters, as in a line. The message is
 * kept whole, with the place that it may begin with: whoever reads the journal sees what a file has.
 */
class JournalEntry
{
public:
    /**
     * Builds the fields into `buffer`, which is borrowed and has room for `size` bytes. What does
     * not fit is cut off; the message comes last, so that it is what is cut.
     *
     * @param place  where it was logged; null when the message itself may begin with that
     */
    JournalEntry(char *buffer, std::size_t size, LogPriority priority, std::string_view tag,
                 const LogPlace *place, std::string_view message);

    const iovec *Fields() const { return mFields.data(); }
    int Count() const { return mCount; }

    /** Above `size` when something was cut off. */
    std::size_t Needed() const { return mNeeded; }

private:
    std::array<iovec, 7> mFields = {};
    int mCount = 0;
    std::size_t mNeeded = 0;
};

/**
 * Sends one entry to the journal of the system.
 *
 * @return the number of bytes of its fields, or a negated errno value: there is no library, no
 *         journal, or the journal refused it
 */
int SendToJournal(LogPriority priority, std::string_view tag, const LogPlace *place,
                  std::string_view message) noexcept;

} // namespace ParvanePlatform
