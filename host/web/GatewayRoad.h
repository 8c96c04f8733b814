#pragma once

#include <memory>
#include <thread>

#include "Road.h"
#include "WebTarget.h"

namespace ParvaneHost {

/**
 * The gateway of a watch on the network, for programs without a main loop of GLib: a WebRelay in a thread
 * of its own.
 *
 * At its end it waits, some seconds at most, until what was sent over the last link is on its way.
 */
class GatewayRoad : public Road
{
public:
    explicit GatewayRoad(WebTarget target);
    ~GatewayRoad() override;

    GatewayRoad(const GatewayRoad &) = delete;
    GatewayRoad &operator=(const GatewayRoad &) = delete;

    Result<Link, Error> Connect(const Deadline &deadline, const WaitOptions &options) override;
    [[nodiscard]] int Fd() const override;
    void Leave() override;

private:
    struct Attempt;
    class Worker;

    WebTarget mTarget;
    std::shared_ptr<Attempt> mAttempt; // that is under way
    std::unique_ptr<Worker> mWorker;
};

} // namespace ParvaneHost
