#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "Clock.h"
#include "Sqlite.h"

namespace ParvanePlatform {

using Parvane::IsSqliteCorruption;
using Parvane::SqliteErrorText;
using Parvane::SqliteExecute;
using Parvane::SqliteHandle;
using Parvane::SqliteStatement;

/** What a preference holds. */
using PreferenceValue = std::variant<bool, int, std::string>;

/**
 * The SQLite file "preferences.db" of a state directory (docs/storage.md): its rows, its transactions,
 * and what is done when it is damaged.
 *
 * A file that is no database, or damaged, or laid out in another way than this version knows, is set
 * aside as "preferences.db.corrupt-<time>", never deleted, and an empty one takes its place. A file of
 * a newer version stays as it is. Then, and when the file cannot be opened for another reason, every
 * call fails and tries to open it again. What fails is logged, a reason that stays the same once.
 *
 * Main-loop thread only.
 */
class PreferenceFile
{
public:
    /** `clock` is borrowed for the life of the object. Nothing is opened yet. */
    PreferenceFile(const std::string &stateDirectory, const Clock &clock);

    /** Opens the file unless it is open. @return whether it is open */
    bool Open();

    /** The same; a file that could only be read when it was opened is opened anew. */
    bool OpenToWrite();

    /**
     * Reads the value of a key; none when there is no such key.
     *
     * @return 0; -74 when the row does not hold what its type says; -5 when the file cannot be read
     */
    int Read(std::string_view key, std::optional<PreferenceValue> &value);

    /** Reads all values whose rows are good. @return 0; -5 when the file cannot be read */
    int ReadAll(std::map<std::string, PreferenceValue> &values);

    // A transaction, in a file that OpenToWrite() has opened. These return SQLITE_OK, or an extended
    // code that the caller takes to OnFailure().

    int Begin();
    /** Whether there is one; it ends with Commit(), Rollback(), and some failures. */
    bool IsInTransaction() const { return mIsInTransaction; }
    int Write(std::string_view key, const PreferenceValue &value);
    int Commit();
    void Rollback() noexcept;

    /**
     * Logs a failure, or sets the file aside when it says that the file is damaged.
     *
     * @param what  "cannot be written"
     */
    void OnFailure(const char *what, int result);

private:
    /** What stands against using the file; nothing when there is no problem. */
    struct Finding
    {
        std::string mProblem;
        /** It must not be set aside: it is good, or nobody can tell. */
        bool mMustStay = false;
    };

    Finding OpenFile();
    Finding InspectFiles();
    Finding OpenDatabase();
    Finding CheckPages();
    Finding CheckEnd();
    Finding InspectLayout();
    Finding Prepare();
    Finding FindingOf(int result) const;
    bool HasLog() const;
    void Close();
    void CloseUntouched();
    std::string FreeName() const;
    bool SetAside(const std::string &problem);
    void Report(const char *what, const std::string &reason);

    const Clock &mClock;
    std::string mDirectory;
    std::string mPath;
    SqliteHandle mDatabase;
    SqliteStatement mSelect;
    SqliteStatement mUpsert;
    /** There are no tables in it yet. */
    bool mIsNew = false;
    bool mIsInTransaction = false;
    std::string mLastReport;
};

} // namespace ParvanePlatform
