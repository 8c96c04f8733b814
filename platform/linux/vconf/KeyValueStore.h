#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <platform/vconf.h>

#include "LoopSource.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

/**
 * The key-value store: one file per key, under the key's own name (docs/storage.md).
 *
 * Keys that start with "memory/" lie below the run-time directory, all others below the state
 * directory. A value is a whole number in decimal digits, with or without a line end.
 *
 * Watchers hear of a change that SetInt() makes in the next turn of the main loop, and of one that
 * another process makes as soon as the kernel tells of it; a write that leaves the value what it
 * was is no change. A file that is gone or holds no number is a value of its own. Main-loop thread
 * only.
 */
class KeyValueStore
{
public:
    static constexpr std::size_t kMaxKeyBytes = 255;

    /** Both directories exist; they are not followed when they vanish themselves. */
    KeyValueStore(std::string runtimeDirectory, std::string stateDirectory);

    /**
     * Reads a key.
     *
     * @return 0; -22 for a bad key; -2 when there is no such key; -74 when it holds no int; -5 when
     *         it cannot be read
     */
    int GetInt(std::string_view key, int &value) const;

    /**
     * Sets a key, atomically, and makes the directories that its name needs.
     *
     * @param delivered  called from the main loop, in the next turn, after the watchers have heard
     *                   of the change; at once in the next turn when there was no change or the
     *                   write has failed. May be empty.
     * @return 0; -22 for a bad key; -5 when the write has failed, which is logged
     */
    int SetInt(std::string_view key, int value, std::function<void()> delivered = nullptr);

    /**
     * Calls `callback` with `userData` after each change of `key`, for the life of the store. Its
     * node is never null and is valid during the call only.
     *
     * @return 0; -22 for a bad key
     */
    int Watch(std::string_view key, vconf_changed_cb callback, void *userData);

private:
    /** What a key's file says. */
    struct State
    {
        enum class Kind { Absent, Unreadable, Number };
        Kind mKind = Kind::Absent;
        int mValue = 0;

        bool operator==(const State &) const = default;
    };

    struct Watcher
    {
        vconf_changed_cb mCallback = nullptr;
        void *mUserData = nullptr;
    };

    /** A key that is watched. */
    struct WatchedKey
    {
        State mLast;
        bool mChanged = false;
        std::vector<Watcher> mWatchers;
    };

    const std::string &BaseOf(std::string_view key) const;
    std::string PathOf(std::string_view key) const;
    State Read(std::string_view key) const;
    void OpenInotify();
    void FollowDirectoriesOf(const std::string &key, std::vector<int> &watches);
    void FollowDirectories();
    void OnInotify();
    void NoteChange(WatchedKey &watched, const State &state);
    void ScheduleDelivery();
    void Deliver();

    std::string mRuntimeDirectory;
    std::string mStateDirectory;
    /** Keys are never taken out: delivery walks the map while callbacks may add to it. */
    std::map<std::string, WatchedKey, std::less<>> mWatched;
    std::vector<std::function<void()>> mDelivered;
    Parvane::UniqueFd mInotify;
    std::vector<int> mDirectoryWatches;
    Parvane::LoopSource mInotifySource;
    Parvane::LoopSource mDelivery;
};

} // namespace ParvanePlatform
