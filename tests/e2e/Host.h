#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "GatewayRoad.h"
#include "Link.h"

class Gateway;

using Bytes = std::vector<uint8_t>;

/**
 * A phone that speaks raw bytes on the accessory link's socket or, where PARVANE_TEST_GATEWAY names its program,
 * through a gateway over WebSocket, or where PhoneSocket() leads.
 */
class Host
{
public:
    /** Connects, waiting for the socket to appear. @throws std::runtime_error if it does not */
    explicit Host(const std::filesystem::path &socketPath,
                  std::chrono::milliseconds limit = std::chrono::seconds(30));
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;
    ~Host();

    void Send(const Bytes &packet) const;

    /** Sends without waiting for room; whether there was room. */
    bool TrySend(const Bytes &packet) const;

    /** The next packet; nothing when none comes in time or the link has ended. */
    std::optional<Bytes> Receive(std::chrono::milliseconds limit = std::chrono::seconds(30)) const;

    /** Sends a packet and receives `count` packets. */
    std::vector<Bytes> Ask(const Bytes &packet, std::size_t count) const;

    /** Whether the other side closes the link within a few seconds; packets before that are lost. */
    bool IsClosed() const;

    void Disconnect();

private:
    void ConnectToSocket(const std::filesystem::path &path, std::chrono::milliseconds limit);
    void ConnectToGateway(const Gateway &gateway, std::chrono::milliseconds limit);

    std::unique_ptr<ParvaneHost::GatewayRoad> mRoad; // whose link mLink is, and mFd the link's
    std::optional<ParvaneHost::Link> mLink;
    bool mIsRefused = false; // as another phone, before there was a link
    int mFd = -1;
};
