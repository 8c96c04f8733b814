#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Clock.h"
#include "LoopSource.h"
#include "PreferenceFile.h"
#include "Timer.h"

namespace ParvanePlatform {

/**
 * The application preferences, and what becomes of their writes until they are in the file
 * (PreferenceFile), which knows what to do when it is damaged.
 *
 * All writes of one turn of the main loop are one transaction, which is on the disk before the loop
 * goes to sleep, or before that by SecureTurn(). Reads see writes at once. When a transaction cannot
 * be finished its writes stay in memory, together and still readable, and are tried again with the
 * next write, after a second, then at growing distances up to a minute, and at the end of the store;
 * each new reason is logged. When a single write fails, the turn is taken back as a whole.
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
     * @return 0; -22 for a bad key; -5 when the write has failed, which is logged: it takes all
     *         other writes of this turn back, and those that follow in this turn fail, too
     */
    int Set(std::string_view key, PreferenceValue value);

    /** Another number whenever a preference may have changed. */
    std::uint64_t Revision() const { return mRevision; }

    /** Does what a failed Set() does, for a caller that could not even get so far. */
    void TakeTurnBack() noexcept;

    /**
     * Makes durable what this turn of the main loop has written so far, before anybody outside is
     * told of it: sendData() asks for it. Costs nothing in a turn that has written nothing.
     *
     * @return false when a write of this turn has failed or is not on the disk; that stays so until
     *         the next turn
     */
    bool SecureTurn();

    /**
     * Writes everything that is not on the disk yet; the main loop does this by itself.
     *
     * @return true when nothing is left
     */
    bool Commit();

private:
    using Writes = std::map<std::string, PreferenceValue, std::less<>>;

    template <typename Value>
    int GetTyped(std::string_view key, Value &value);
    int Lookup(std::string_view key, std::optional<PreferenceValue> &value);
    int TryToSet(std::string_view key, const PreferenceValue &value);
    int Begin();
    bool Save();
    void KeepForLater();
    void EndTurn();

    const Clock &mClock;
    PreferenceFile mFile;
    /** Written in this turn, and not on the disk yet. */
    Writes mTurn;
    /** Written in earlier turns whose transaction could not be finished. */
    Writes mUnsaved;
    std::uint64_t mRevision = 0;
    bool mTurnHasFailed = false;
    bool mTurnIsTakenBack = false;
    std::int64_t mRetryDelayUs = 0;
    LoopTimer mRetryTimer;
    Parvane::LoopSource mTurnSource;
};

} // namespace ParvanePlatform
