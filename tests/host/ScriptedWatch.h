#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Messages.h"
#include "UniqueFd.h"

namespace ParvaneHost {

/**
 * The watch's end of the accessory link, as a test dictates it: a listening SOCK_SEQPACKET socket in a
 * directory of its own, which is removed at the end, and one connection at a time.
 *
 * What does not happen within 30 s is thrown as std::runtime_error, which fails the test.
 */
class ScriptedWatch
{
public:
    ScriptedWatch();
    ~ScriptedWatch();

    ScriptedWatch(const ScriptedWatch &) = delete;
    ScriptedWatch &operator=(const ScriptedWatch &) = delete;

    [[nodiscard]] const std::string &Path() const { return mPath; }

    /** Takes the next host; the one before is hung up. */
    void Accept();

    /** The next packet of the host. */
    Bytes Receive();

    /** Whether the host has sent nothing that was not received, right now. */
    [[nodiscard]] bool IsQuiet() const;

    void Send(const Bytes &packet);

    void HangUp();

    /** Waits until the host hangs up; false when it sends something instead. */
    bool SeesHostLeave();

    /** Ends listening: whoever connects from now on is refused. */
    void StopListening();

    /** What a watch that runs by itself says to a packet, in packets. */
    using Answerer = std::function<std::vector<Bytes>(const Bytes &)>;

    /**
     * Does what can be done without waiting: takes a host, and answers one packet. For a tick of the
     * client's, so that the watch moves while the client waits.
     */
    void Step(const Answerer &answerer);

private:
    std::string mDirectory;
    std::string mPath;
    Parvane::UniqueFd mListener;
    Parvane::UniqueFd mHost;
};

} // namespace ParvaneHost
