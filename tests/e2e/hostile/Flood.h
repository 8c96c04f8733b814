#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>

#include "Host.h"

/** What became of a flood. */
struct FloodResult
{
    std::chrono::duration<double> mTime{0};
    std::int64_t mSent = 0;
    /** Packets that came back. */
    std::int64_t mReceived = 0;
    /** Whether the service has ended the connection. */
    bool mWasClosed = false;
};

/** A host that sends one request over and over, as fast as it is told to or as the service takes it. */
class Flood
{
public:
    /** Connects to a link. */
    explicit Flood(const std::filesystem::path &socketPath);
    Flood(const Flood &) = delete;
    Flood &operator=(const Flood &) = delete;
    ~Flood();

    /**
     * Sends for `time`, at most `perSecond`.
     *
     * @param reads  whether it takes the answers: if so it takes all of them, also after the time
     */
    FloodResult Run(const Bytes &request, int perSecond, std::chrono::milliseconds time,
                    bool reads) const;

private:
    /** Hands over as many of `most` as there is room for; -1 when the connection has ended. */
    std::int64_t SendSome(const Bytes &request, std::int64_t most) const;
    std::int64_t TakeAll() const;
    void TakeTheRest(FloodResult &result) const;
    void Wait(short events) const;

    int mFd = -1;
};
