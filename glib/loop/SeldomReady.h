#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>

#include <glib.h>

#include "LoopSource.h"
#include "UniqueFd.h"

namespace Parvane {

/**
 * Descriptors that are seldom ready, which the main loop watches as one.
 *
 * The loop asks each of its descriptors in every turn, which costs a host that waits for an answer
 * some 0.2 us apiece. Here the kernel keeps the set (epoll), and a turn costs the same however many
 * there are. Made with the first descriptor, gone with the last. Main-loop thread only.
 */
class SeldomReady
{
public:
    using Id = std::uint64_t;

    /**
     * Calls `handler` in each turn of the loop in which one of `events` is true of `fd`, until
     * Forget(). The descriptor must stay open until then.
     *
     * @return what Forget() takes; nothing when the kernel cannot keep this descriptor in a set, has
     *         it there already or has no memory for it
     */
    static std::optional<Id> Watch(int fd, GIOCondition events, LoopSource::Handler handler);

    /** Ends the calls; may be called from inside one of them, also its own. */
    static void Forget(Id id);

private:
    struct Entry
    {
        int mFd = -1;
        /** Shared with the call that is being made. */
        std::shared_ptr<const LoopSource::Handler> mHandler;
    };

    SeldomReady();

    static void CallReady();
    static void EndUnused();

    /** Owned by the entries: there while there are any. Nothing is left to the end of the process. */
    static SeldomReady *sInstance;
    static Id sLastId;

    UniqueFd mEpoll;
    std::map<Id, Entry> mEntries;
    LoopSource mSource;
};

} // namespace Parvane
