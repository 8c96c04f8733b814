#pragma once

#include <functional>
#include <list>
#include <string>

#include "ConfigFile.h"
#include "LoopSource.h"
#include "UniqueFd.h"

namespace ParvaneHub {

/**
 * Answers "GET /metrics" on one address, one request for each connection, and anything else with what
 * HTTP has for it. At most kMostClients at a time, 5 s each. Main-loop thread only.
 */
class MetricsServer
{
public:
    static constexpr std::size_t kMostClients = 16;
    static constexpr std::size_t kMostRequestBytes = 8192;

    /**
     * @param text  what is answered, asked for at each request
     * @throws std::runtime_error when the address cannot be listened on
     */
    MetricsServer(const Listen &listen, std::function<std::string()> text);

    /** The port that is listened on, where 0 was asked for as well. */
    [[nodiscard]] int Port() const;

private:
    struct Client
    {
        Parvane::UniqueFd mSocket;
        std::string mRequest;
        std::string mAnswer;
        Parvane::LoopSource mSource;
        Parvane::LoopSource mTimeout;
    };

    void OnAcceptable();
    void OnReadable(Client &client);
    void OnWritable(Client &client);
    void End(Client &client);
    std::string Answer(const std::string &request) const;

    std::function<std::string()> mText;
    Parvane::UniqueFd mListener;
    Parvane::LoopSource mSource;
    std::list<Client> mClients;
};

} // namespace ParvaneHub
