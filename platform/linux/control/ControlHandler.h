#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "LinkSession.h"

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
    /** The connection is told of events, too. */
    bool mStartsObserving = false;
    /** What is held for as long as the connection is there. */
    std::vector<std::shared_ptr<void>> mHeld = {};
    /** The connection is told of what crosses the link. */
    bool mStartsCapture = false;
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

    /** The events since the last call that nobody else tells of: what has changed in the status. */
    virtual std::vector<std::string> TakeChanges() = 0;

    /** Has a function told of each packet of the accessory link, as LinkSession::SetTap() does. */
    virtual void TapLink(LinkSession::Tap tap) = 0;
};

} // namespace ParvanePlatform
