#include "Sqlite.h"

#include "ErrnoText.h"

namespace Parvane {

int SqliteStatement::Prepare(sqlite3 *database, const char *sql)
{
    sqlite3_stmt *statement = nullptr;
    const int result =
        sqlite3_prepare_v3(database, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    mStatement.reset(statement);
    return result;
}

int SqliteStatement::First(sqlite3 *database, const char *sql)
{
    Close();
    if (const int result = Prepare(database, sql); result != SQLITE_OK) {
        return result;
    }
    const int result = Step();
    return result == SQLITE_ROW ? SQLITE_OK : result;
}

void SqliteStatement::BindInt(int index, std::int64_t value)
{
    if (const int result = sqlite3_bind_int64(mStatement.get(), index, value);
        result != SQLITE_OK) {
        mBindResult = result;
    }
}

void SqliteStatement::BindText(int index, std::string_view value)
{
    // A null destructor: SQLite copies nothing and releases nothing.
    if (const int result = sqlite3_bind_text64(mStatement.get(), index, value.data(), value.size(),
                                               nullptr, SQLITE_UTF8);
        result != SQLITE_OK) {
        mBindResult = result;
    }
}

int SqliteStatement::Step()
{
    return mBindResult != SQLITE_OK ? mBindResult : sqlite3_step(mStatement.get());
}

std::int64_t SqliteStatement::Int(int column) const
{
    return sqlite3_column_int64(mStatement.get(), column);
}

std::string SqliteStatement::Text(int column) const
{
    const void *text = sqlite3_column_text(mStatement.get(), column);
    const int size = sqlite3_column_bytes(mStatement.get(), column);
    if (text == nullptr || size <= 0) {
        return {};
    }
    return {static_cast<const char *>(text), static_cast<std::size_t>(size)};
}

int SqliteStatement::Type(int column) const
{
    return sqlite3_column_type(mStatement.get(), column);
}

void SqliteStatement::Reset()
{
    sqlite3_reset(mStatement.get());
    sqlite3_clear_bindings(mStatement.get());
    mBindResult = SQLITE_OK;
}

int SqliteExecute(sqlite3 *database, const char *sql)
{
    return sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
}

bool IsSqliteCorruption(int result)
{
    const int primary = result & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

std::string SqliteErrorText(sqlite3 *database, int result)
{
    std::string text = sqlite3_errstr(result);
    if (const int error = database != nullptr ? sqlite3_system_errno(database) : 0; error != 0) {
        text += " (" + ErrnoText(error) + ")";
    }
    return text;
}

void SqliteUseLittleMemory()
{
    constexpr int kSmallBlockBytes = 128;
    constexpr int kSmallBlocks = 64;
    // Pages one by one instead of 20 at once.
    sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0);
    sqlite3_config(SQLITE_CONFIG_LOOKASIDE, kSmallBlockBytes, kSmallBlocks);
}

} // namespace Parvane
