#pragma once

#include <optional>
#include <string>

#include "ChildProcess.h"
#include "FakeWatch.h"

namespace ParvaneGateway {

/** A dbus-daemon of the test's own, which is the system bus of this process while the object lives. */
class PrivateSystemBus
{
public:
    PrivateSystemBus();
    ~PrivateSystemBus();

    PrivateSystemBus(const PrivateSystemBus &) = delete;
    PrivateSystemBus &operator=(const PrivateSystemBus &) = delete;

    /** Why there can be none here; empty when there can. */
    static std::string WhyNot();

    /** Starts the bus, after Stop() at the same address. */
    void Start();
    void Stop();

    [[nodiscard]] const std::string &Address() const { return mAddress; }

private:
    TestFolder mFolder;
    std::string mAddress;
    std::optional<Parvane::ChildProcess> mDaemon;
};

} // namespace ParvaneGateway
