#pragma once

#include <string_view>

namespace ParvanePlatform {

/** What a look at a write-ahead log tells before SQLite has had it in its hands. */
enum class SqliteLogState {
    /** It holds nothing. */
    Empty,
    /** Every whole transaction in it is valid. */
    Sound,
    /** Its head is not that of a log: SQLite will take it for empty and write over it. */
    NoLog,
    /** Whole transactions follow on a damaged place: SQLite will write over them. */
    Damaged
};

/**
 * Looks at the content of a write-ahead log.
 *
 * A last transaction that is not whole is no damage: that is what a process leaves that was killed
 * while it wrote.
 */
SqliteLogState InspectSqliteLog(std::string_view log);

} // namespace ParvanePlatform
