#include "StoredSteps.h"

#include <cstdlib>
#include <memory>

#include <sqlite3.h>

namespace {

using Database = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;

/** The first cell of a query's answer; what went wrong, when there is none. */
std::string Ask(sqlite3 *database, const char *sql)
{
    std::string answer = "nothing";
    const auto take = [](void *data, int count, char **cells, char **) {
        if (count > 0 && cells[0] != nullptr) {
            *static_cast<std::string *>(data) = cells[0];
        }
        return 0;
    };
    if (sqlite3_exec(database, sql, take, &answer, nullptr) != SQLITE_OK) {
        return sqlite3_errmsg(database);
    }
    return answer;
}

} // namespace

StoredSteps StoredSteps::Read(const std::filesystem::path &stateDirectory,
                              const std::filesystem::path &scratch)
{
    const std::filesystem::path copy = scratch / "copy.db";
    for (const char *suffix : {"", "-wal", "-shm", "-journal"}) {
        const std::filesystem::path from =
            stateDirectory / (std::string("preferences.db") + suffix);
        const std::filesystem::path to = copy.string() + suffix;
        std::filesystem::remove(to);
        // The index of the log is made anew from it, as at every start after a kill.
        if (std::string(suffix) != "-shm" && std::filesystem::exists(from)) {
            std::filesystem::copy_file(from, to);
        }
    }
    sqlite3 *opened = nullptr;
    sqlite3_open_v2(copy.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
    const Database database(opened, sqlite3_close);
    StoredSteps stored;
    stored.mIntegrity = Ask(opened, "PRAGMA integrity_check");
    stored.mText =
        Ask(opened, "SELECT value FROM preferences WHERE key = 'Parvane/data/pedometer/value'");
    const std::string time =
        Ask(opened, "SELECT value FROM preferences WHERE key = 'Parvane/data/pedometer/time'");
    stored.mTotal = std::strtoll(stored.mText.c_str(), nullptr, 10);
    stored.mTime = std::strtoll(time.c_str(), nullptr, 10);
    return stored;
}
