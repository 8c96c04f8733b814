#pragma once

#include <functional>
#include <list>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>

#include "LoopSource.h"
#include "UniqueFd.h"

namespace ParvaneGateway {

/** There is no gateway that serves this user. */
class NoAnswer : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/**
 * How the commands of parvane-gateway ask the one that serves: the socket "gateway.sock" of its
 * run-time directory, mode 0600, one JSON object per message, for its own user and root. One request
 * and one reply for each connection. Main-loop thread only.
 */
class OperationSocket
{
public:
    static constexpr char kName[] = "gateway.sock";
    static constexpr std::size_t kMostClients = 8;
    static constexpr std::size_t kMostBytes = 65536;

    /** Answers a request, which is an object; what it throws becomes {"error": "..."}. */
    using Handler = std::function<nlohmann::json(const nlohmann::json &request)>;

    /** @throws std::runtime_error when there can be no socket, or another gateway has it */
    explicit OperationSocket(const std::string &runtimeDirectory);
    ~OperationSocket();

    OperationSocket(const OperationSocket &) = delete;
    OperationSocket &operator=(const OperationSocket &) = delete;

    /** Serves the requests whose member "request" is `name`. */
    void Serve(const std::string &name, Handler handler);

    /**
     * Asks the gateway that serves there; waits for 5 s at most.
     *
     * @throws NoAnswer; std::runtime_error when the reply is an error
     */
    static nlohmann::json Ask(const std::string &runtimeDirectory, const nlohmann::json &request);

private:
    struct Client
    {
        Parvane::UniqueFd mSocket;
        Parvane::LoopSource mSource;
    };

    void OnAcceptable();
    void OnRequest(Client &client);
    nlohmann::json Answer(const std::string &text) const;

    std::string mPath;
    /** One gateway for each run-time directory; the kernel drops it when the process ends. */
    Parvane::UniqueFd mLock;
    Parvane::UniqueFd mListener;
    Parvane::LoopSource mSource;
    std::list<Client> mClients;
    std::map<std::string, Handler> mHandlers;
};

} // namespace ParvaneGateway
