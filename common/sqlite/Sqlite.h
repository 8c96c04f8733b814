#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <sqlite3.h>

namespace Parvane {

/** Closes a connection. Its statements are finalised before. */
struct SqliteClose
{
    void operator()(sqlite3 *database) const noexcept { sqlite3_close(database); }
};
using SqliteHandle = std::unique_ptr<sqlite3, SqliteClose>;

struct SqliteFinalize
{
    void operator()(sqlite3_stmt *statement) const noexcept { sqlite3_finalize(statement); }
};

/**
 * One prepared statement, made once and run often. Results are SQLite's extended codes.
 *
 * Bound text is borrowed until Reset().
 */
class SqliteStatement
{
public:
    /** Prepares `sql`. @return SQLITE_OK or the error */
    int Prepare(sqlite3 *database, const char *sql);

    /** Prepares `sql` in place of what was there, and goes to its first row. @return SQLITE_OK or the error */
    int First(sqlite3 *database, const char *sql);

    void BindInt(int index, std::int64_t value);
    void BindText(int index, std::string_view value);

    /** Goes on to the next row. @return SQLITE_ROW, SQLITE_DONE or the error */
    int Step();

    std::int64_t Int(int column) const;
    std::string Text(int column) const;
    int Type(int column) const;

    /** Makes the statement ready for its next run, and forgets what was bound. */
    void Reset();

    /** Ends the statement. */
    void Close() { mStatement.reset(); }

private:
    std::unique_ptr<sqlite3_stmt, SqliteFinalize> mStatement;
    int mBindResult = SQLITE_OK;
};

/** Runs a statement that has no rows to give. @return SQLITE_OK or the extended error code */
int SqliteExecute(sqlite3 *database, const char *sql);

/** True for the errors that mean that the file is damaged or no database at all. */
bool IsSqliteCorruption(int result);

/** Says what an error code means, with the system's own error where there is one. */
std::string SqliteErrorText(sqlite3 *database, int result);

/**
 * Keeps SQLite from setting memory aside for more pages and statements than a small store needs.
 * Before the first database is opened; later it changes nothing.
 */
void SqliteUseLittleMemory();

} // namespace Parvane
