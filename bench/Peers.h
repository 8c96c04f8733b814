#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Service.h"

namespace ParvaneBench {

/** Something that answers requests, and a way to ask it; ends with the object. */
class Peer
{
public:
    virtual ~Peer() = default;

    /** Asks for a reading, or a sensor list, and waits for the answer. */
    virtual void AskForReading() = 0;
    virtual void AskForList() = 0;
};

/** The service itself. @param polls  see Host */
std::unique_ptr<Peer> MakeServicePeer(const Setting &setting, bool polls);

/** The service, asked through the C interface of libparvane-host. */
std::unique_ptr<Peer> MakeLibraryPeer(const Setting &setting);

/** The yardstick parvane-bench-echo in one of its modes, once for each of the two answers. */
std::unique_ptr<Peer> MakeEchoPeer(const Setting &setting, const std::string &mode);

/** An sd-bus service, reached through a message bus of its own; null when it was not built. */
std::unique_ptr<Peer> MakeBusPeer(const Setting &setting);

/** A client of an MQTT broker that replies on a second topic; null when it was not built. */
std::unique_ptr<Peer> MakeTopicPeer(const Setting &setting);

/** An echo for many requests at a time: answers each with a reading's bytes. */
class EchoServer
{
public:
    EchoServer(const Setting &setting, const std::string &mode,
               const std::vector<std::size_t> &sizes);

    Fd Connect() const { return ConnectTo(mFolder.Path() / "echo.sock"); }

private:
    Child::Start MakeStart(const Setting &setting, const std::string &mode,
                           const std::vector<std::size_t> &sizes) const;

    TemporaryFolder mFolder;
    Child mChild;
};

} // namespace ParvaneBench
