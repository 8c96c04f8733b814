#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Deadline.h"
#include "UniqueFd.h"

namespace ParvaneWatch {

/** The service cannot be reached, has gone, or does not answer; one line for people. */
class Unreachable : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/** The service sent what docs/control.md does not allow; one line for people. */
class ProtocolError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/** The interrupt descriptor ended a wait. */
struct Interrupted
{};

/** One connection to the control socket (docs/control.md). */
class ControlClient
{
public:
    /** The version of the protocol that is spoken here. */
    static constexpr int kVersion = 1;

    static constexpr std::chrono::milliseconds kAnswerTime{5000};

    /**
     * Connects.
     *
     * @param interruptFd  borrowed; while it is readable, waiting throws Interrupted. -1 for none
     * @throws Unreachable
     */
    ControlClient(std::string path, int interruptFd,
                  std::chrono::milliseconds answerTime = kAnswerTime);

    /**
     * Sends a request, a JSON text, and waits for its reply, an object whose "ok" says whether it was served.
     *
     * @throws Unreachable, ProtocolError, Interrupted
     */
    nlohmann::json Ask(const std::string &request);

    /**
     * Waits for the next message, an object; for streams.
     *
     * @return nothing when the service has closed the connection
     * @throws Unreachable, ProtocolError, Interrupted
     */
    std::optional<nlohmann::json> Next();

    /** Readable when a message is there, or the service has gone; owned here. */
    [[nodiscard]] int Fd() const { return mSocket.Get(); }

    /** The next message that is there already; nothing when none is. For the rest after an interruption. */
    std::optional<nlohmann::json> NextAtOnce();

private:
    void Connect();
    /** @return false when the deadline has passed @throws Unreachable, Interrupted */
    bool WaitUntil(const Parvane::Deadline &deadline, short events, int interruptFd) const;
    /** Takes one message. @return nothing at the end of the connection, or when none is there */
    std::optional<nlohmann::json> Take();
    [[nodiscard]] nlohmann::json Parse(const std::string &text) const;
    [[nodiscard]] std::string Timeout() const;

    std::string mPath;
    int mInterruptFd;
    std::chrono::milliseconds mAnswerTime;
    Parvane::UniqueFd mSocket;
    std::vector<char> mBuffer;
};

} // namespace ParvaneWatch
