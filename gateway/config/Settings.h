#pragma once

#include <string>

namespace ParvaneGateway {

/** What the configuration asks of the gateway; the defaults are those of an empty file. */
struct Settings
{
    /** Section [watch]: the run-time directory of the watch service, with its sockets. */
    std::string mWatchDirectory = "/run/parvane";
};

} // namespace ParvaneGateway
