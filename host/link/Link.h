#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "CaptureFile.h"
#include "Deadline.h"
#include "Error.h"
#include "Messages.h"
#include "Result.h"
#include "UniqueFd.h"
#include "Wait.h"

namespace ParvaneHost {

using Parvane::Deadline;
using Parvane::UniqueFd;
using Parvane::WaitOptions;

/**
 * The accessory link as a connected SOCK_SEQPACKET socket: one message is one packet.
 *
 * Owns the socket. After a LinkError the link is of no more use. One thread at a time.
 */
class Link
{
public:
    /** Why a link has ended, where something else than its socket knows. */
    using WhyLost = std::function<std::optional<LinkError>()>;

    /** Takes a connected socket; `path` names it in messages. `whyLost` is asked when it has ended. */
    Link(UniqueFd socket, std::string path, WhyLost whyLost = nullptr);

    /**
     * Connects to the socket at `path`.
     *
     * Fails with LinkError (CannotConnect; ENAMETOOLONG and EINVAL for a path too long or empty,
     * EAGAIN when the watch takes no host before the deadline) and Interrupted.
     */
    static Result<Link, Error> Connect(const std::string &path, const Deadline &deadline,
                                       const WaitOptions &options);

    using OnPacket = std::function<void(Parvane::Sender, std::span<const std::uint8_t>)>;

    /** Called with each packet that was sent or read, after it was. Must not use the link. */
    void SetOnPacket(OnPacket onPacket) { mOnPacket = std::move(onPacket); }

    /** For poll(2); stays the link's. */
    [[nodiscard]] int Fd() const { return mSocket.Get(); }

    /** Sends one packet. Fails with LinkError, Failure NoAnswer and Interrupted. */
    std::optional<Error> Send(std::span<const std::uint8_t> packet, const Deadline &deadline,
                              const WaitOptions &options);

    /**
     * The next packet, which may be empty.
     *
     * Fails with LinkError, Failure NoAnswer, Interrupted, and Failure Malformed for a packet above the
     * size limit of the link. The watch closing the link before it sent anything is
     * LinkError::Reason::AnotherHost within two seconds of connecting, and Closed later.
     */
    Result<Bytes, Error> Receive(const Deadline &deadline, const WaitOptions &options);

    /**
     * Sends one packet without a wait, in one system call: false where there is no room for it. Fails
     * when the link is of no more use.
     */
    Result<bool, LinkError> TrySend(std::span<const std::uint8_t> packet);

    /**
     * The next packet without a wait, in one system call; nothing where there is none. Fails as Receive()
     * does, but for NoAnswer and Interrupted. Takes 64 KiB of the stack.
     */
    std::optional<Result<Bytes, Error>> TryReceive();

    /**
     * A name of the process at the other end, which no other process of this machine has or has had:
     * up to 64 printable characters without blanks. Empty where the system does not tell, and for a socket whose
     * other end is of this process: a relay's.
     */
    [[nodiscard]] std::string PeerRun() const;

private:
    [[nodiscard]] LinkError Lost(int code) const;
    [[nodiscard]] bool PeerHasClosed() const;

    UniqueFd mSocket;
    std::string mPath;
    WhyLost mWhyLost;
    std::chrono::steady_clock::time_point mConnectedAt;
    bool mHasReceived = false;
    OnPacket mOnPacket;
};

} // namespace ParvaneHost
