#pragma once

#include <functional>
#include <list>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>

#include "LoopSource.h"
#include "UniqueFd.h"

namespace Parvane {

/** There is no daemon that serves this user. */
class NoAnswer : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/**
 * How the commands of a daemon ask the one that serves: the socket "NAME.sock" of its
 * run-time directory, mode 0600, one JSON object per message, for its own user and root. One request
 * and one reply for each connection. Main-loop thread only.
 */
class OperationSocket
{
public:
    static constexpr std::size_t kMostClients = 8;
    static constexpr std::size_t kMostBytes = 65536;

    /** Answers a request, which is an object; what it throws becomes {"error": "..."}. */
    using Handler = std::function<nlohmann::json(const nlohmann::json &request)>;

    /**
     * @param name  of the daemon, "gateway"
     * @throws std::runtime_error when there can be no socket, or another one has it
     */
    OperationSocket(const std::string &runtimeDirectory, const std::string &name);
    ~OperationSocket();

    OperationSocket(const OperationSocket &) = delete;
    OperationSocket &operator=(const OperationSocket &) = delete;

    /** Serves the requests whose member "request" is `name`. */
    void Serve(const std::string &name, Handler handler);

    /**
     * Asks the daemon that serves there; waits for 5 s at most.
     *
     * @throws NoAnswer; std::runtime_error when the reply is an error
     */
    static nlohmann::json Ask(const std::string &runtimeDirectory, const std::string &name,
                              const nlohmann::json &request);

private:
    struct Client
    {
        UniqueFd mSocket;
        LoopSource mSource;
    };

    void OnAcceptable();
    void OnRequest(Client &client);
    nlohmann::json Answer(const std::string &text) const;

    std::string mPath;
    /** One daemon for each run-time directory; the kernel drops it when the process ends. */
    UniqueFd mLock;
    UniqueFd mListener;
    LoopSource mSource;
    std::list<Client> mClients;
    std::map<std::string, Handler> mHandlers;
};

} // namespace Parvane
