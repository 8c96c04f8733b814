#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "PreferenceStore.h"
#include "TestSupport.h"

namespace ParvanePlatform {

/** Of a page of the database, as SQLite makes it. */
constexpr long kPageBytes = 4096;

/** A store on a directory of its own, and a look at its file from outside. */
class PreferenceTest : public testing::Test
{
protected:
    PreferenceTest() { Restart(); }

    void Restart()
    {
        mStore.reset();
        mStore = std::make_unique<PreferenceStore>(mDirectory.Path(), mClock);
    }

    std::string File() const { return mDirectory / "preferences.db"; }

    /** Runs SQL on the file, as another program would. @return the cells of the rows */
    std::vector<std::string> Sql(const std::string &sql) const
    {
        sqlite3 *opened = nullptr;
        EXPECT_EQ(sqlite3_open(File().c_str(), &opened), SQLITE_OK);
        const SqliteHandle database(opened);
        std::vector<std::string> cells;
        const auto collect = [](void *data, int count, char **values, char **) {
            for (int i = 0; i < count; ++i) {
                static_cast<std::vector<std::string> *>(data)->emplace_back(
                    values[i] != nullptr ? values[i] : "null");
            }
            return 0;
        };
        EXPECT_EQ(sqlite3_exec(database.get(), sql.c_str(), collect, &cells, nullptr), SQLITE_OK)
            << sql << ": " << sqlite3_errmsg(database.get());
        return cells;
    }

    /** The loop goes into its next turn; what is due then is not run. */
    static void EndTurn() { NextWakeMs(); }

    template <typename Value>
    int Get(const std::string &key, Value &value)
    {
        return mStore->Get(key, value);
    }

    int GetInt(const std::string &key)
    {
        int value = 12345;
        const int result = mStore->Get(key, value);
        EXPECT_TRUE(result == 0 || value == 12345);
        return result == 0 ? value : result;
    }

    /** The rows as they are in the file, not as this process sees them. */
    std::vector<std::string> Rows() const { return Sql("SELECT key, value FROM preferences"); }

    ManualClock mClock;
    TemporaryDirectory mDirectory;
    std::unique_ptr<PreferenceStore> mStore;
};

} // namespace ParvanePlatform
