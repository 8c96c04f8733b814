#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace ParvanePlatform {

/** What becomes of one request. */
struct ControlAnswer
{
    /** One message, of at most ControlServer::kMaxReplyBytes. */
    std::string mReply;
    /** The connection becomes a stream of readings. */
    bool mStartsRecording = false;
    /** Called when the reply has been sent, or cannot be; may be empty. */
    std::function<void()> mAfterwards;
};

/** Does what the messages on the control socket ask for. Main-loop thread only. */
class ControlHandler
{
public:
    virtual ~ControlHandler() = default;

    /**
     * Answers one message, which may hold anything.
     *
     * @param peerPid  the process that has sent it, for the log
     */
    virtual ControlAnswer Answer(std::string_view message, int peerPid) = 0;
};

} // namespace ParvanePlatform
