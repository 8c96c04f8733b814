#include "KeyValueStore.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <sys/inotify.h>
#include <unistd.h>
#include <utility>

#include "ErrorCode.h"
#include "Files.h"
#include "Numbers.h"
#include "RuntimeLog.h"

/** What a callback gets: the key that has changed. */
struct vconf_node
{
    const char *key;
};

namespace ParvanePlatform {

namespace {

constexpr std::string_view kMemoryPrefix = "memory/";

/** Far above any int: only a file that is no number is longer. */
constexpr std::size_t kMaxValueBytes = 64;

// Not IN_MODIFY: a file that is being written over is read when its writer is done.
constexpr std::uint32_t kDirectoryEvents = IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                           IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF |
                                           IN_ONLYDIR | IN_EXCL_UNLINK;

bool IsValidKey(std::string_view key)
{
    if (key.empty() || key.size() > KeyValueStore::kMaxKeyBytes ||
        key.find('\0') != std::string_view::npos) {
        return false;
    }
    for (;;) {
        const std::size_t slash = key.find('/');
        const std::string_view component = key.substr(0, slash);
        if (component.empty() || component == "." || component == "..") {
            return false;
        }
        if (slash == std::string_view::npos) {
            return true;
        }
        key.remove_prefix(slash + 1);
    }
}

} // namespace

KeyValueStore::KeyValueStore(std::string runtimeDirectory, std::string stateDirectory)
    : mRuntimeDirectory(std::move(runtimeDirectory)), mStateDirectory(std::move(stateDirectory))
{}

int KeyValueStore::GetInt(std::string_view key, int &value) const
{
    if (!IsValidKey(key)) {
        return ErrorCode::kInvalidParameter;
    }
    std::string text;
    switch (ReadWholeFile(PathOf(key), kMaxValueBytes, text)) {
    case 0:
        break;
    case ENOENT:
    case ENOTDIR:
        return ErrorCode::kNotFound;
    case EFBIG:
    case EISDIR:
    case kNotARegularFile:
        return ErrorCode::kBadContent;
    default:
        return ErrorCode::kInputOutput;
    }
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    const auto number = ParseInteger<int>(text);
    if (!number) {
        return ErrorCode::kBadContent;
    }
    value = *number;
    return 0;
}

int KeyValueStore::SetInt(std::string_view key, int value, std::function<void()> delivered)
{
    if (!IsValidKey(key)) {
        return ErrorCode::kInvalidParameter;
    }
    int error = 0;
    int current = 0;
    if (GetInt(key, current) != 0 || current != value) {
        const std::string path = PathOf(key);
        const auto durability =
            key.starts_with(kMemoryPrefix) ? Durability::FileSystem : Durability::Disk;
        error = MakeDirectories(ParentOf(path), durability);
        if (error == 0) {
            error = WriteFileAtomically(path, std::to_string(value) + '\n', durability);
        }
        if (error != 0) {
            LogError("cannot set %s to %d: %s", path.c_str(), value, ErrorText(error).c_str());
        }
    }
    if (const auto watched = mWatched.find(key); error == 0 && watched != mWatched.end()) {
        NoteChange(watched->second, State{State::Kind::Number, value});
    }
    if (delivered) {
        mDelivered.push_back(std::move(delivered));
        ScheduleDelivery();
    }
    return error == 0 ? 0 : ErrorCode::kInputOutput;
}

int KeyValueStore::Watch(std::string_view key, vconf_changed_cb callback, void *userData)
{
    if (!IsValidKey(key) || callback == nullptr) {
        return ErrorCode::kInvalidParameter;
    }
    auto watched = mWatched.find(key);
    if (watched == mWatched.end()) {
        OpenInotify();
        watched = mWatched.emplace(key, WatchedKey()).first;
        // Followed first, read then: a change in between is told twice rather than never.
        FollowDirectories();
        watched->second.mLast = Read(key);
    }
    watched->second.mWatchers.push_back(Watcher{callback, userData});
    return 0;
}

const std::string &KeyValueStore::BaseOf(std::string_view key) const
{
    return key.starts_with(kMemoryPrefix) ? mRuntimeDirectory : mStateDirectory;
}

std::string KeyValueStore::PathOf(std::string_view key) const
{
    return std::string(BaseOf(key)).append("/").append(key);
}

KeyValueStore::State KeyValueStore::Read(std::string_view key) const
{
    State state;
    const int result = GetInt(key, state.mValue);
    if (result == 0) {
        state.mKind = State::Kind::Number;
    } else if (result != ErrorCode::kNotFound) {
        state.mKind = State::Kind::Unreadable;
    }
    return state;
}

void KeyValueStore::OpenInotify()
{
    if (mInotify) {
        return;
    }
    mInotify.Reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!mInotify) {
        LogError("changes of keys by other processes will not be seen: %s",
                 ErrorText(errno).c_str());
        return;
    }
    mInotifySource =
        Parvane::LoopSource::WatchSeldom(mInotify.Get(), G_IO_IN, [this] { OnInotify(); });
}

void KeyValueStore::FollowDirectories()
{
    if (!mInotify) {
        return;
    }
    std::vector<int> watches;
    for (const auto &[key, watched] : mWatched) {
        FollowDirectoriesOf(key, watches);
    }
    for (const int watch : mDirectoryWatches) {
        if (std::find(watches.begin(), watches.end(), watch) == watches.end()) {
            // Fails for a directory that is gone: the kernel has ended its watch already.
            ::inotify_rm_watch(mInotify.Get(), watch);
        }
    }
    mDirectoryWatches = std::move(watches);
}

void KeyValueStore::FollowDirectoriesOf(const std::string &key, std::vector<int> &watches)
{
    const std::string path = PathOf(key);
    for (std::size_t end = BaseOf(key).size(); end != std::string::npos;
         end = path.find('/', end + 1)) {
        const std::string directory = path.substr(0, end);
        const int watch = ::inotify_add_watch(mInotify.Get(), directory.c_str(), kDirectoryEvents);
        if (watch < 0) {
            if (errno != ENOENT && errno != ENOTDIR) {
                LogWarning("cannot watch %s: %s", directory.c_str(), ErrorText(errno).c_str());
            }
            return;
        }
        watches.push_back(watch);
    }
}

void KeyValueStore::OnInotify()
{
    // What the events say does not matter: everything that is watched is looked at anew, which also
    // covers events that the kernel had to drop.
    alignas(inotify_event) char events[4096];
    while (::read(mInotify.Get(), events, sizeof events) > 0) {
    }
    FollowDirectories();
    for (auto &[key, watched] : mWatched) {
        NoteChange(watched, Read(key));
    }
}

void KeyValueStore::NoteChange(WatchedKey &watched, const State &state)
{
    if (state != watched.mLast) {
        watched.mLast = state;
        watched.mChanged = true;
        ScheduleDelivery();
    }
}

void KeyValueStore::ScheduleDelivery()
{
    if (!mDelivery.IsActive()) {
        mDelivery = Parvane::LoopSource::Post([this] { Deliver(); });
    }
}

void KeyValueStore::Deliver()
{
    // First: a change that a callback makes is delivered in the next turn.
    mDelivery.Remove();
    const auto delivered = std::exchange(mDelivered, {});
    std::vector<decltype(mWatched)::value_type *> changed;
    for (auto &entry : mWatched) {
        if (std::exchange(entry.second.mChanged, false)) {
            changed.push_back(&entry);
        }
    }
    for (const auto *entry : changed) {
        vconf_node node{entry->first.c_str()};
        const auto watchers = entry->second.mWatchers;
        for (const Watcher &watcher : watchers) {
            watcher.mCallback(&node, watcher.mUserData);
        }
    }
    for (const auto &call : delivered) {
        call();
    }
}

} // namespace ParvanePlatform
