#pragma once

#include <string>
#include <utility>

#include "Link.h"

namespace ParvaneHost {

/** How links to one watch are made, one at a time. One thread at a time. */
class Road
{
public:
    virtual ~Road() = default;

    /**
     * The next link. An attempt that is not over when `deadline` passes goes on, and is what the next call
     * waits for: that is Failure NoAnswer. Fails with LinkError and Interrupted, too.
     */
    virtual Result<Link, Error> Connect(const Deadline &deadline, const WaitOptions &options) = 0;

    /** While an attempt is under way: readable when it is over. Else -1. */
    [[nodiscard]] virtual int Fd() const { return -1; }

    /** Gives an attempt up that is under way. A link that was made goes on. */
    virtual void Leave() {}
};

/** The socket of a watch on this machine. */
class SocketRoad : public Road
{
public:
    explicit SocketRoad(std::string path) : mPath(std::move(path)) {}

    Result<Link, Error> Connect(const Deadline &deadline, const WaitOptions &options) override
    {
        return Link::Connect(mPath, deadline, options);
    }

private:
    std::string mPath;
};

} // namespace ParvaneHost
