#pragma once

#include <string>

#include "UniqueFd.h"

namespace ParvaneWatch {

/**
 * The service's end of the control socket, as a test dictates it: a listening SOCK_SEQPACKET socket in
 * a directory of its own, which is removed at the end, and one connection at a time.
 *
 * What does not happen within 30 s is thrown as std::runtime_error, which fails the test.
 */
class ScriptedService
{
public:
    ScriptedService();
    ~ScriptedService();

    ScriptedService(const ScriptedService &) = delete;
    ScriptedService &operator=(const ScriptedService &) = delete;

    /** The path of the socket. */
    [[nodiscard]] std::string Path() const { return mDirectory + "/control.sock"; }

    /** A name in the directory of the socket. */
    [[nodiscard]] std::string operator/(const std::string &name) const
    {
        return mDirectory + "/" + name;
    }

    void Accept();
    [[nodiscard]] std::string Receive() const;
    void Send(const std::string &message) const;
    void HangUp() { mClient.Reset(); }

    /** Accepts, and takes the first request. */
    std::string AcceptRequest();

private:
    std::string mDirectory;
    Parvane::UniqueFd mListener;
    Parvane::UniqueFd mClient;
};

} // namespace ParvaneWatch
