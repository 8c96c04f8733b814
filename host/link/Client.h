#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "CaptureFile.h"
#include "Deadline.h"
#include "Error.h"
#include "Link.h"
#include "Messages.h"
#include "Result.h"
#include "Session.h"
#include "UniqueFd.h"
#include "Wait.h"

namespace ParvaneHost {

struct ClientOptions
{
    std::string mPath; // of the accessory link's socket
    std::chrono::milliseconds mConnectTimeout{5000};
    WaitOptions mWait; // applies to every call that waits
    /** The flags of the first request, 1 to 3; the following ones take turns. */
    std::uint8_t mFirstFlags = 1;
    /** After this long without an answer the worn state is asked for again, see Measure(). */
    std::chrono::milliseconds mAskAgainAfter{3500};
    /** Called when a link is there that was not before, before any packet of it. */
    std::function<void()> mOnConnected = nullptr;
    /** Called with each packet that was sent or read, after it was. Must not use the client. */
    std::function<void(Parvane::Sender, std::span<const std::uint8_t>)> mOnPacket = nullptr;
    /** How much unasked a request may have come before its answer: a bound on memory. */
    std::size_t mMaxUnclaimed = 100000;
};

/**
 * The phone's end of the accessory link: requests with their answers, and what the watch pushes.
 *
 * Not thread-safe: one thread at a time. Nothing runs in the background; packets are read while a
 * call waits and stay in the socket otherwise. Nothing is thrown but std::bad_alloc and what the
 * tick of the wait options throws. Every error is a value; a LinkError also drops the link.
 *
 * Requests carry flags from 1 to 3 in turn, and the watch copies them into its replies, so a late
 * answer to a request that was given up is not taken for the answer to a later one. Whatever no
 * request claims (pushes, late answers) is kept, in order, for Receive(); beyond mMaxUnclaimed
 * packets, the waiting request fails with ProtocolError.
 */
class Client
{
public:
    explicit Client(ClientOptions options);

    /** A client over a socket that is connected already; Reconnect() goes to `options.mPath`. */
    Client(ClientOptions options, UniqueFd socket);

    /** Connects within mConnectTimeout, and before `bound`; does nothing while connected. */
    std::optional<Error> Connect(const Deadline &bound = Deadline::Never());

    /** Closes the link, if any. What Receive() holds is kept. */
    void Disconnect() noexcept;

    /** Disconnect() and Connect(). The watch ends the pushing of activities when a link goes. */
    std::optional<Error> Reconnect(const Deadline &bound = Deadline::Never());

    [[nodiscard]] bool IsConnected() const noexcept { return mLink.has_value(); }

    /** See Link::PeerRun(); empty without a link. */
    [[nodiscard]] std::string PeerRun() const { return mLink ? mLink->PeerRun() : std::string(); }

    /** Asks for the sensors of the watch; answered at once. */
    Result<SensorList, Error> ListSensors(const Deadline &deadline);

    /**
     * Asks for one reading.
     *
     * The heart rate takes 15 s (0 beats: no usable reading), the worn state at most 3 s; the activity
     * is answered at once. The first steps request ever opts in for good: it is answered after half a
     * second, and from then on the watch pushes every update to whoever is connected.
     *
     * The watch answers the worn state once in 3 s and stays silent if asked again meanwhile; so the
     * question is repeated after mAskAgainAfter.
     */
    Result<Reading, Error> Measure(Sensor sensor, const Deadline &deadline);

    /** Sends the question of Measure() alone; its answer comes from Receive(). */
    std::optional<Error> AskToMeasure(Sensor sensor, const Deadline &deadline);

    /**
     * Has the watch push every activity, and returns the current one.
     *
     * A stop goes first, and its acknowledgement is awaited: the watch may still count the activity
     * as started from an earlier link, and a start would then push nothing. For the steps the watch
     * answers as if measured. Heart rate and worn state are Unsupported: the watch ignores the start.
     *
     * @param format  0 to 5, see docs/wire-format.md
     */
    Result<Reading, Error> Start(Sensor sensor, const Deadline &deadline, std::uint8_t format = 0);

    /** Ends the pushing of activities; acknowledged in any case. Steps are pushed on regardless. */
    Result<StopAck, Error> Stop(Sensor sensor, const Deadline &deadline);

    /** The next packet that no request has claimed: kept ones first, then from the link. */
    Result<Reply, Error> Receive(const Deadline &deadline);

    /** Takes the kept packets, oldest first, without reading from the link. */
    std::deque<Reply> TakeUnclaimed();

    /** Sends `packet` as it is. */
    std::optional<Error> SendRaw(std::span<const std::uint8_t> packet, const Deadline &deadline);

    /** The next packet of the link as it is, passing by what Receive() keeps. */
    Result<Bytes, Error> ReceiveRaw(const Deadline &deadline);

    [[nodiscard]] const ClientOptions &Options() const noexcept { return mOptions; }

private:
    using Claim = std::function<bool(const Reply &)>;

    [[nodiscard]] std::uint8_t NextFlags();
    [[nodiscard]] Error NotConnected() const;
    Result<Reply, Error> ReadReply(const Deadline &deadline);
    Result<Reply, Error> Await(const Claim &claim, const Deadline &deadline,
                               const std::string &what);
    Result<Reply, Error> Ask(const Request &request, const Claim &claim, const Deadline &deadline,
                             const std::string &what);

    ClientOptions mOptions;
    std::optional<Link> mLink;
    std::uint8_t mFlags = 1;
    std::deque<Reply> mUnclaimed;
};

} // namespace ParvaneHost
