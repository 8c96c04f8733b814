#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Clock.h"
#include "ContextManager.h"
#include "ControlHandler.h"
#include "ListeningSocket.h"
#include "LoopSource.h"
#include "PacketSocket.h"
#include "RecordingWriter.h"
#include "Timer.h"

namespace ParvanePlatform {

/**
 * The socket "control.sock" of the run-time directory (docs/control.md): several clients at once, one
 * message of the socket per request and per reply.
 *
 * Served are processes of this user and of root. A reply that does not fit the client's socket drops
 * the client; the rows of a recording and events wait in a queue. A client that lets that fill up is
 * told so after the last row that it gets; one that observes or captures is told how many events it
 * has missed.
 * Nothing wakes the main loop unless a client does. Main-loop thread only.
 */
class ControlServer
{
public:
    static constexpr char kSocketName[] = "control.sock";
    static constexpr std::size_t kMaxClients = 8;
    /** Those that record, observe or capture: a place stays for requests. */
    static constexpr std::ptrdiff_t kMaxStreams = 7;
    static constexpr std::size_t kMaxRequestBytes = 8192;
    static constexpr std::size_t kMaxReplyBytes = 65536;

    /** The most bytes of messages that wait for one client that records, observes or captures. */
    static constexpr std::size_t kMaxQueuedBytes = 1048576;

    /** How long a client that has let its queue fill up has for what is in it. */
    static constexpr std::int64_t kEndWaitMs = 10000;

    /** Messages of one client that are read in one turn of the main loop. */
    static constexpr int kMessagesPerTurn = 8;

    /**
     * @param runtimeDirectory  exists, and is used by this process alone
     * @param context           whose readings are told; it and `clock` are borrowed for the life
     *                          of the server, which sets the context manager's tap
     * @param allowed           a user who is served besides the service's own and root
     * @throws StartupError when there can be no socket
     */
    ControlServer(const std::string &runtimeDirectory, std::unique_ptr<ControlHandler> handler,
                  ContextManager &context, const Clock &clock,
                  std::optional<uid_t> allowed = std::nullopt);

    /** Tells those who record and observe of the end, and closes all connections. */
    ~ControlServer();

    ControlServer(const ControlServer &) = delete;
    ControlServer &operator=(const ControlServer &) = delete;

    /** How many clients there are. */
    std::size_t ClientCount() const;

private:
    struct Client
    {
        /** Whether it asks for nothing more. */
        bool IsStream() const { return mWriter || mObserves || mCaptures; }

        PacketSocket mSocket;
        int mPid = 0;
        Parvane::LoopSource mSource;
        /** Set while the client records. */
        std::optional<RecordingWriter> mWriter;
        bool mObserves = false;
        /** Is told of what crosses the link. */
        bool mCaptures = false;
        /** Messages that one who observes or captures has not been told since the queue was full. */
        std::uint64_t mMissed = 0;
        std::vector<std::shared_ptr<void>> mHeld;
        std::int64_t mStartUs = 0;
        std::deque<std::string> mQueue;
        std::size_t mQueuedBytes = 0;
        /** Nothing is added to the queue any more; the client goes when it is empty. */
        bool mIsEnding = false;
        /** Taken out in the next turn of the loop. */
        bool mIsGone = false;
        LoopTimer mEndTimer;
    };

    std::ptrdiff_t StreamCount() const;
    void OnListenerReady();
    /** Makes room of clients whose end has not had its turn of the loop yet. */
    void ServeThoseWhoHaveGone();
    void TakeClient(PacketSocket socket, int pid);
    void Watch(Client &client);
    void OnClientReady(Client &client);
    /** Takes one message. @return false when there is nothing left to take in this turn */
    bool ReadMessage(Client &client);
    void Serve(Client &client, std::string_view message);
    void Reply(Client &client, const std::string &reply);
    void OnReading(ContextItem item, const SensorReading &reading);
    void OnPacket(const LinkSession::Packet &packet);
    /** Tells those who observe. */
    void Tell(const std::vector<std::string> &events);
    void Enqueue(Client &client, std::string message);
    void Flush(Client &client);
    void Drop(Client &client);
    void Sweep();

    const Clock &mClock;
    ContextManager &mContext;
    std::unique_ptr<ControlHandler> mHandler;
    ListeningSocket mListener;
    std::vector<unsigned char> mBuffer;
    std::list<Client> mClients;
    Parvane::LoopSource mSweep;
    /** Set while somebody observes. */
    Parvane::LoopSource mTurnEnd;
};

} // namespace ParvanePlatform
