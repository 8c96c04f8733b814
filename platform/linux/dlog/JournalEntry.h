#pragma once

#include <cstddef>
#include <string_view>

#include "LogPriority.h"

namespace ParvanePlatform {

struct LogPlace;

/**
 * Builds one entry of the journal into `entry`, which has room for `size` bytes: a line "NAME=value"
 * for each of SYSLOG_IDENTIFIER, PRIORITY, PARVANE_TAG, CODE_FILE, CODE_FUNC and CODE_LINE when the
 * place is known, and MESSAGE. What does not fit is cut off; the message comes last, so that it is
 * what is cut.
 *
 * Tag and message are without colour sequences and control characters, as in a line. The message is
 * kept whole, with the place that it may begin with: whoever reads the journal sees what a file has.
 *
 * @param place  where it was logged; null when the message itself may begin with that
 * @return the bytes that the whole entry needs; when that is not above `size`, nothing was cut off
 */
std::size_t FormatJournalEntry(char *entry, std::size_t size, LogPriority priority,
                               std::string_view tag, const LogPlace *place,
                               std::string_view message);

/**
 * Sends one entry to the journal of the system. Waits for a journal that is behind as JournalSocket
 * does.
 *
 * @return the number of bytes of the entry, or a negated errno value: there is no journal, it is
 *         behind, or it refused the entry
 */
int SendToJournal(LogPriority priority, std::string_view tag, const LogPlace *place,
                  std::string_view message) noexcept;

} // namespace ParvanePlatform
