#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Sqlite.h"

namespace ParvaneHub {

/** A message for the broker that is kept until the broker has it. */
struct Message
{
    std::string mTopic;
    std::string mBody;      // a JSON object, or empty
    std::int64_t mAtMs = 0; // what it tells was so then, since 1970; 0: its age is of no interest
    bool mIsRetained = false;
};

/** A message with its place in the queue. */
struct Queued
{
    std::int64_t mPlace = 0;  // grows; not used twice by one process
    std::int64_t mTakenS = 0; // by Queue::ClockS()
    Message mMessage;
};

/**
 * The messages that the broker does not have yet, in an SQLite file, and what is known of the steps of
 * each watch.
 *
 * What is put in is taken with the next Commit() that succeeds, all of it or nothing; from then on it
 * outlives the process. It holds a number of bytes, and messages of an age; what is more is dropped,
 * the oldest first, and counted. Ages are counted while a hub runs, so that a clock that jumps drops
 * nothing. After a failed Commit() everything waits in memory for the next one, of which the oldest
 * is dropped beyond kMostWaiting. Main-loop thread only.
 */
class Queue
{
public:
    static constexpr std::size_t kMostWaiting = 10000;

    struct Limits
    {
        std::int64_t mMostBytes = 0;
        std::chrono::seconds mMostAge{0};
    };

    struct Counts
    {
        std::int64_t mMessages = 0;       // that wait for the broker
        std::int64_t mBytes = 0;          // of topics and bodies, with what a row takes
        std::int64_t mDroppedForSize = 0; // since the file was made
        std::int64_t mDroppedForAge = 0;
    };

    /**
     * Opens or makes the file. One that is damaged is moved aside, to PATH.damaged, and told.
     *
     * @throws std::runtime_error when there can be none
     */
    Queue(std::string path, Limits limits);

    void Put(Message message);
    /** The broker has it. */
    void Remove(std::int64_t place);
    /** Keeps what is known of the watch's steps, and its name, until Forget(). */
    void SaveSteps(const std::string &watch, std::string text);
    void Forget(const std::string &watch);

    /** Whether there is something for Commit(). */
    [[nodiscard]] bool IsWaiting() const
    {
        return !mWaiting.empty() || !mRemoved.empty() || !mSteps.empty();
    }

    /** Writes everything down. @return the error, in one line; empty when all is well */
    std::string Commit();

    /** The first messages behind a place, of those that are taken. @throws std::runtime_error */
    std::vector<Queued> After(std::int64_t place, int most);

    /** Names of the watches that were saved and not forgotten, with what is known of their steps. */
    std::map<std::string, std::string> LoadSteps();

    [[nodiscard]] const Counts &GetCounts() const { return mCounts; }

    /** When a message's age began to count, for Queued::mTakenS: seconds in which a hub ran. */
    [[nodiscard]] std::int64_t ClockS() const;

    /** The age of the oldest message, by ClockS(); 0 without any. */
    [[nodiscard]] std::chrono::seconds OldestAge();

private:
    void Open();
    void Prepare();
    void LoadCounts();
    int Write();
    int WriteMessages();
    int DropTooOld();
    int DropTooMany();
    int Delete(std::int64_t place);
    int WriteCounts();
    std::int64_t First(const char *sql);

    std::string mPath;
    Limits mLimits;
    Parvane::SqliteHandle mDatabase;
    Parvane::SqliteStatement mInsert;
    Parvane::SqliteStatement mDelete;
    Parvane::SqliteStatement mAfter;
    Parvane::SqliteStatement mOldest;
    Parvane::SqliteStatement mUpsertSteps;
    std::deque<Message> mWaiting;
    std::set<std::int64_t> mRemoved;
    std::map<std::string, std::optional<std::string>> mSteps; // nothing: to be forgotten
    Counts mCounts;
    Counts mWritten; // as they are in the file
    std::int64_t mLastPlace = 0;
    std::int64_t mClockAtStartS = 0;
    std::chrono::steady_clock::time_point mStart = std::chrono::steady_clock::now();
};

} // namespace ParvaneHub
