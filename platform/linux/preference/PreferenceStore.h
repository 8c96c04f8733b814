#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "base/Clock.h"
#include "base/LoopSource.h"
#include "preference/Sqlite.h"

namespace ParvanePlatform {

/** What a preference holds. */
using PreferenceValue = std::variant<bool, int, std::string>;

/**
 * The application preferences, in the SQLite file "preferences.db" of the state directory
 * (docs/storage.md).
 *
 * All writes of one turn of the main loop are one transaction, which is on the disk before the loop
 * goes to sleep. Reads see writes at once. When a transaction cannot be finished its writes stay in
 * memory, still readable, and are tried again with the next write, after a second, then at growing
 * distances up to a minute, and at the end of the store; each new reason is logged.
 *
 * A file that is no database, or damaged, or laid out in another way than this version knows, is set
 * aside as "preferences.db.corrupt-<time>", never deleted, and an empty one takes its place. When
 * the file cannot be opened for another reason every call fails and tries to open it again.
 *
 * Main-loop thread only.
 */
class PreferenceStore
{
public:
    static constexpr std::size_t kMaxKeyBytes = 1024;

    /** `clock` is borrowed for the life of the store. Failures are logged, not told. */
    PreferenceStore(const std::string &stateDirectory, const Clock &clock);

    /** Writes what is not on the disk yet; what cannot be written is logged by name. */
    ~PreferenceStore();

    PreferenceStore(const PreferenceStore &) = delete;
    PreferenceStore &operator=(const PreferenceStore &) = delete;

    /**
     * Reads a preference of one type.
     *
     * @return 0; -126 when there is none; -22 for a bad key or a preference of another type; -74
     *         when what is stored is out of its type's range; -5 when the file cannot be read
     */
    int Get(std::string_view key, bool &value);
    int Get(std::string_view key, int &value);
    int Get(std::string_view key, std::string &value);

    /** Whether a preference exists, of whatever type. @return 0; -22; -5 */
    int Exists(std::string_view key, bool &exists);

    /**
     * Reads all preferences, by their keys; those whose row is bad are left out.
     *
     * @return 0; -5 when the file cannot be read
     */
    int GetAll(std::map<std::string, PreferenceValue> &values);

    /**
     * Writes a preference; it takes over the type of the value.
     *
     * @return 0; -22 for a bad key; -5 when the write has failed, which is logged
     */
    int Set(std::string_view key, PreferenceValue value);

    /**
     * Finishes the transaction that is open, if any; the main loop calls this by itself.
     *
     * @return true when nothing is left that is not on the disk
     */
    bool Commit();

private:
    template <typename Value>
    int GetTyped(std::string_view key, Value &value);
    int Lookup(std::string_view key, std::optional<PreferenceValue> &value);
    static int ReadRow(const SqliteStatement &select, std::optional<PreferenceValue> &value);
    int WriteRow(std::string_view key, const PreferenceValue &value);
    int TryToSet(std::string_view key, const PreferenceValue &value);
    int Begin();
    void OnFailure(const char *what, int result);
    void Retry();
    void ScheduleRetry();

    bool Open();
    int OpenFile();
    int Prepare(std::string &problem);
    int Inspect(std::string &problem, bool &isNew);
    int InspectColumns(std::string &problem);
    int Configure(bool isNew);
    void Close();
    void CloseDamaged();
    bool SetAside(const std::string &problem);
    void Report(const char *what, const std::string &reason);

    const Clock &mClock;
    std::string mDirectory;
    std::string mPath;
    SqliteHandle mDatabase;
    SqliteStatement mSelect;
    SqliteStatement mUpsert;
    /** Written since the last successful commit. */
    std::map<std::string, PreferenceValue, std::less<>> mPending;
    bool mInTransaction = false;
    std::string mLastReport;
    std::int64_t mRetryDelayUs = 0;
    LoopTimer mRetryTimer;
    LoopSource mCommitSource;
};

} // namespace ParvanePlatform
