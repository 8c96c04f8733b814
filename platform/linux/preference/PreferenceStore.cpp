#include "PreferenceStore.h"

#include <algorithm>
#include <utility>

#include "ErrorCode.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

constexpr std::int64_t kFirstRetryUs = 1'000'000;
constexpr std::int64_t kLastRetryUs = 60'000'000;

bool IsValidKey(std::string_view key)
{
    return !key.empty() && key.size() <= PreferenceStore::kMaxKeyBytes;
}

} // namespace

PreferenceStore::PreferenceStore(const std::string &stateDirectory, const Clock &clock)
    : mClock(clock), mFile(stateDirectory, clock)
{
    mFile.Open();
    mTurnSource = Parvane::LoopSource::BeforeSleep([this] { EndTurn(); });
}

PreferenceStore::~PreferenceStore()
{
    mTurnSource.Remove();
    try {
        Commit();
        mRetryTimer.Disarm();
        for (const auto &[key, value] : mUnsaved) {
            LogError("the last value of the preference %s is lost", key.c_str());
        }
    } catch (const std::exception &failure) {
        LogError("preferences: %s", failure.what());
    }
}

int PreferenceStore::Get(std::string_view key, bool &value)
{
    return GetTyped(key, value);
}

int PreferenceStore::Get(std::string_view key, int &value)
{
    return GetTyped(key, value);
}

int PreferenceStore::Get(std::string_view key, std::string &value)
{
    return GetTyped(key, value);
}

template <typename Value>
int PreferenceStore::GetTyped(std::string_view key, Value &value)
{
    std::optional<PreferenceValue> found;
    if (const int result = Lookup(key, found); result != 0) {
        return result;
    }
    if (!found) {
        return ErrorCode::kNoSuchKey;
    }
    auto *typed = std::get_if<Value>(&*found);
    if (typed == nullptr) {
        return ErrorCode::kInvalidParameter;
    }
    value = std::move(*typed);
    return 0;
}

int PreferenceStore::Exists(std::string_view key, bool &exists)
{
    std::optional<PreferenceValue> found;
    const int result = Lookup(key, found);
    if (result == 0 || result == ErrorCode::kBadContent) {
        exists = found.has_value() || result != 0;
        return 0;
    }
    return result;
}

int PreferenceStore::GetAll(std::map<std::string, PreferenceValue> &values)
{
    std::map<std::string, PreferenceValue> all;
    if (const int result = mFile.ReadAll(all); result != 0) {
        return result;
    }
    for (const Writes *writes : {&mUnsaved, &mTurn}) {
        for (const auto &[key, value] : *writes) {
            all.insert_or_assign(key, value);
        }
    }
    values = std::move(all);
    return 0;
}

int PreferenceStore::Set(std::string_view key, PreferenceValue value)
{
    if (!IsValidKey(key)) {
        return ErrorCode::kInvalidParameter;
    }
    if (mTurnIsTakenBack) {
        // Without those before it, it would be half of what the turn was to write.
        return ErrorCode::kInputOutput;
    }
    try {
        int result = TryToSet(key, value);
        if (IsSqliteCorruption(result)) {
            // The damaged file has been set aside: the new one takes the value.
            result = TryToSet(key, value);
        }
        if (result == SQLITE_OK) {
            mTurn.insert_or_assign(std::string(key), std::move(value));
            ++mRevision;
            return 0;
        }
    } catch (...) {
        TakeTurnBack();
        throw;
    }
    TakeTurnBack();
    return ErrorCode::kInputOutput;
}

void PreferenceStore::TakeTurnBack() noexcept
{
    mFile.Rollback();
    mTurn.clear();
    ++mRevision;
    mTurnIsTakenBack = true;
    mTurnHasFailed = true;
}

bool PreferenceStore::SecureTurn()
{
    if (mTurnHasFailed) {
        return false;
    }
    return mTurn.empty() || Save();
}

bool PreferenceStore::Commit()
{
    return (mTurn.empty() && mUnsaved.empty()) || Save();
}

void PreferenceStore::EndTurn()
{
    if (!mTurn.empty()) {
        Save();
    }
    mTurnHasFailed = false;
    mTurnIsTakenBack = false;
}

bool PreferenceStore::Save()
{
    if (!mFile.OpenToWrite()) {
        KeepForLater();
        return false;
    }
    const char *what = "cannot be written";
    int result = Begin();
    if (result == SQLITE_OK) {
        what = "cannot be saved";
        result = mFile.Commit();
    }
    if (result != SQLITE_OK) {
        mFile.OnFailure(what, result);
        KeepForLater();
        return false;
    }
    mUnsaved.clear();
    mTurn.clear();
    mRetryDelayUs = 0;
    mRetryTimer.Disarm();
    return true;
}

void PreferenceStore::KeepForLater()
{
    mFile.Rollback();
    mTurnHasFailed = mTurnHasFailed || !mTurn.empty();
    mTurn.merge(mUnsaved);
    mUnsaved = std::exchange(mTurn, {});
    mRetryDelayUs = std::clamp(mRetryDelayUs * 2, kFirstRetryUs, kLastRetryUs);
    mRetryTimer.Arm(mClock.MonotonicUs() + mRetryDelayUs, [this] { Commit(); });
}

int PreferenceStore::Lookup(std::string_view key, std::optional<PreferenceValue> &value)
{
    if (!IsValidKey(key)) {
        return ErrorCode::kInvalidParameter;
    }
    for (const Writes *writes : {&mTurn, &mUnsaved}) {
        if (const auto found = writes->find(key); found != writes->end()) {
            value = found->second;
            return 0;
        }
    }
    return mFile.Read(key, value);
}

int PreferenceStore::TryToSet(std::string_view key, const PreferenceValue &value)
{
    if (!mFile.OpenToWrite()) {
        return SQLITE_CANTOPEN;
    }
    int result = Begin();
    if (result == SQLITE_OK) {
        result = mFile.Write(key, value);
    }
    if (result != SQLITE_OK) {
        mFile.OnFailure("cannot be written", result);
    }
    return result;
}

int PreferenceStore::Begin()
{
    if (mFile.IsInTransaction()) {
        return SQLITE_OK;
    }
    if (const int result = mFile.Begin(); result != SQLITE_OK) {
        return result;
    }
    // Older ones first. Of this turn there are some already when its file has been set aside.
    for (const Writes *writes : {&mUnsaved, &mTurn}) {
        for (const auto &[key, value] : *writes) {
            if (const int result = mFile.Write(key, value); result != SQLITE_OK) {
                mFile.Rollback();
                return result;
            }
        }
    }
    return SQLITE_OK;
}

} // namespace ParvanePlatform
