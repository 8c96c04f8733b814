#pragma once

#include <cstddef>
#include <ctime>
#include <string>

namespace Parvane {

/** Characters of a local time before its time of day, and of its offset at the end. */
inline constexpr std::size_t kDateLength = 11;
inline constexpr std::size_t kOffsetLength = 5;

/** "2014-05-13 18:53:20+0200", in this time zone; empty for a time beyond all calendars. */
std::string LocalTime(std::time_t seconds);

} // namespace Parvane
