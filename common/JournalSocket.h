#pragma once

#include <string_view>

namespace Parvane {

/**
 * Sends entries to the journal in its native form. An entry that is too long for a datagram goes as a
 * sealed file in memory.
 *
 * A journal that is behind delays one entry by 10 ms at most; after that entries are refused at once,
 * until it takes one again. Works at any time of the process: the socket is opened by the first entry
 * and never closed.
 */
class JournalSocket
{
public:
    /** `path` is borrowed for the life of the object. */
    constexpr explicit JournalSocket(const char *path) : mPath(path) {}

    /**
     * @param entry  lines "NAME=value", each with its end
     * @return 0 or a negated errno value: ENOENT and ECONNREFUSED where no journal is, EAGAIN when it
     *         is behind
     */
    int Send(std::string_view entry) noexcept;

private:
    int SendAsFile(std::string_view entry, int flags) const noexcept;

    const char *mPath;
    int mSocket = -1;
    bool mIsBehind = false;
};

} // namespace Parvane
