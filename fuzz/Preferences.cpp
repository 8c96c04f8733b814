#include <algorithm>
#include <filesystem>
#include <map>
#include <string>

#include "Input.h"
#include "PreferenceStore.h"
#include "Require.h"
#include "TestSupport.h"

// The files of the preferences: four bytes that say how long the database is, the database, and its
// write-ahead log. Whatever they are, the store opens, keeps what it says that it keeps, and loses no
// file.

using namespace ParvanePlatform;
using ParvaneFuzz::Require;

namespace {

constexpr const char *kKey = "Parvane/data/pedometer/value";

/** Puts the files of the input into an empty directory. */
void Place(const std::string &directory, const std::uint8_t *data, std::size_t size)
{
    std::filesystem::remove_all(directory);
    std::filesystem::create_directory(directory);
    ParvaneFuzz::Input input(data, size);
    const auto databaseBytes = static_cast<std::size_t>(input.Number(4));
    const std::string_view files =
        ParvaneFuzz::TextOf(data, size).substr(std::min<std::size_t>(size, 4));
    const std::string_view database = files.substr(0, databaseBytes);
    const std::string_view log = files.substr(database.size());
    WriteFile(directory + "/preferences.db", database);
    if (!log.empty()) {
        WriteFile(directory + "/preferences.db-wal", log);
    }
}

long SetAside(const std::string &directory)
{
    return std::count_if(std::filesystem::directory_iterator(directory), {}, [](const auto &entry) {
        return entry.path().filename().string().ends_with(".corrupt-20260131T123456Z");
    });
}

void CheckReads(PreferenceStore &store)
{
    std::map<std::string, PreferenceValue> all;
    const int result = store.GetAll(all);
    Require(result == 0 || result == -5, "all preferences can be read, or not");
    for (const char *key : {kKey, "a", ""}) {
        std::string text;
        int number = 0;
        bool flag = false;
        for (const int got : {store.Get(key, text), store.Get(key, number), store.Get(key, flag)}) {
            Require(got == 0 || got == -126 || got == -22 || got == -74 || got == -5,
                    "a read has a documented result");
        }
    }
}

/** Writes a value. @return whether the store says that it is on the disk */
bool Write(PreferenceStore &store, const std::string &value)
{
    const int result = store.Set(kKey, value);
    Require(result == 0 || result == -5, "a write has a documented result");
    std::string text;
    Require(result != 0 || (store.Get(kKey, text) == 0 && text == value),
            "a write is seen at once");
    return result == 0 && store.Commit();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const TemporaryDirectory root;
    const std::string directory = root / "state";
    Place(directory, data, size);
    const ManualClock clock;
    bool isKept = false;
    {
        PreferenceStore store(directory, clock);
        CheckReads(store);
        isKept = Write(store, "1 2 3 4 5 6");
        CheckReads(store);
    }
    const long setAside = SetAside(directory);
    Require(setAside <= 1, "a file is set aside once");
    {
        PreferenceStore store(directory, clock);
        std::string text;
        Require(!isKept || (store.Get(kKey, text) == 0 && text == "1 2 3 4 5 6"),
                "what was kept is there after a restart");
        Require(setAside == 0 || isKept, "an empty file takes the place of a damaged one");
    }
    Require(SetAside(directory) == setAside, "a file that was written is not damaged");
    return 0;
}
