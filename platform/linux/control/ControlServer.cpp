#include "ControlServer.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "ControlMessages.h"
#include "Files.h"
#include "RuntimeLog.h"
#include "StatusReport.h"

namespace ParvanePlatform {

namespace {

constexpr GIOCondition kReadEvents = static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR);
constexpr GIOCondition kAllEvents = static_cast<GIOCondition>(kReadEvents | G_IO_OUT);

} // namespace

ControlServer::ControlServer(const std::string &runtimeDirectory,
                             std::unique_ptr<ControlHandler> handler, ContextManager &context,
                             const Clock &clock, std::optional<uid_t> allowed)
    : mClock(clock),
      mContext(context),
      mHandler(std::move(handler)),
      mListener(
          runtimeDirectory + '/' + kSocketName, "control", clock, [this] { OnListenerReady(); },
          allowed),
      mBuffer(kMaxRequestBytes)
{
    mListener.Watch();
    mContext.SetTap(
        [this](ContextItem item, const SensorReading &reading) { OnReading(item, reading); });
}

ControlServer::~ControlServer()
{
    mContext.SetTap(nullptr);
    mHandler->TapLink(nullptr);
    try {
        for (Client &client : mClients) {
            if (client.IsStream()) {
                Enqueue(client, StreamMessage("end", "service-ended"));
            }
        }
    } catch (const std::exception &failure) {
        LogError("control: %s", failure.what());
    }
}

std::size_t ControlServer::ClientCount() const
{
    return static_cast<std::size_t>(std::count_if(
        mClients.begin(), mClients.end(), [](const Client &client) { return !client.mIsGone; }));
}

std::ptrdiff_t ControlServer::StreamCount() const
{
    return std::count_if(mClients.begin(), mClients.end(),
                         [](const Client &client) { return !client.mIsGone && client.IsStream(); });
}

void ControlServer::OnListenerReady()
{
    PacketSocket socket = mListener.Accept();
    if (!socket) {
        return;
    }
    const PacketSocket::Peer peer = socket.GetPeer();
    if (ClientCount() >= kMaxClients) {
        ServeThoseWhoHaveGone();
    }
    const auto count = ClientCount();
    if (!mListener.Admits(peer)) {
        mListener.LogRefusal("a client of user " + std::to_string(peer.mUid) + " is refused");
    } else if (count >= kMaxClients) {
        const std::string reason =
            std::to_string(count) + " clients are connected, no more are allowed";
        const std::string reply = ErrorMessage("busy", reason);
        socket.Send(reply.data(), reply.size());
        mListener.LogRefusal("a client is refused: " + reason);
    } else {
        TakeClient(std::move(socket), peer.mPid);
    }
}

void ControlServer::ServeThoseWhoHaveGone()
{
    for (Client &client : mClients) {
        if (!client.mIsGone && client.mSocket.HasHungUp()) {
            OnClientReady(client);
        }
    }
}

void ControlServer::TakeClient(PacketSocket socket, int pid)
{
    Client &client = mClients.emplace_back();
    client.mSocket = std::move(socket);
    client.mPid = pid;
    Watch(client);
}

void ControlServer::Watch(Client &client)
{
    const GIOCondition events = client.mQueue.empty() ? kReadEvents : kAllEvents;
    client.mSource = Parvane::LoopSource::WatchFd(client.mSocket.Fd(), events,
                                                  [this, &client] { OnClientReady(client); });
}

void ControlServer::OnClientReady(Client &client)
{
    for (int i = 0; i < kMessagesPerTurn && ReadMessage(client); ++i) {
    }
    if (client.mIsGone || client.mQueue.empty()) {
        return;
    }
    Flush(client);
    if (!client.mIsGone && client.mQueue.empty()) {
        Watch(client);
    }
}

bool ControlServer::ReadMessage(Client &client)
{
    std::size_t size = 0;
    switch (client.mSocket.Receive(mBuffer, size)) {
    case PacketSocket::Received::Message:
        Serve(client, {reinterpret_cast<const char *>(mBuffer.data()), size});
        break;
    case PacketSocket::Received::Empty:
        Reply(client, ErrorMessage("bad-message", "the message is empty; send one JSON object"));
        break;
    case PacketSocket::Received::TooLong:
        Reply(client, ErrorMessage("bad-message", "the message is too long; at most " +
                                                      std::to_string(kMaxRequestBytes) +
                                                      " bytes are allowed"));
        break;
    case PacketSocket::Received::Error:
        break;
    case PacketSocket::Received::Nothing:
        return false;
    case PacketSocket::Received::End:
        Drop(client);
        break;
    }
    return !client.mIsGone;
}

void ControlServer::Serve(Client &client, std::string_view message)
{
    if (client.IsStream()) {
        Reply(client, ErrorMessage("recording",
                                   "this connection is a stream; make another one for requests"));
        return;
    }
    ControlAnswer answer;
    try {
        answer = mHandler->Answer(message, client.mPid);
    } catch (const std::exception &failure) {
        LogError("control: %s", failure.what());
        answer = {ErrorMessage("failed", "the service could not do it; its log says why"), false,
                  nullptr};
    }
    const std::ptrdiff_t streams = StreamCount();
    if ((answer.mStartsRecording || answer.mStartsObserving || answer.mStartsCapture) &&
        streams >= kMaxStreams) {
        answer = {
            ErrorMessage("busy", std::to_string(streams) +
                                     " clients record, observe or capture, no more are allowed"),
            false, nullptr};
    }
    Reply(client, answer.mReply);
    if (answer.mStartsRecording && !client.mIsGone) {
        LogInfo("control: process %d records", client.mPid);
        client.mWriter.emplace();
        client.mStartUs = mClock.MonotonicUs();
        Enqueue(client, StreamMessage("header", RecordingWriter::Header(mClock.WallMs())));
        client.mHeld = std::move(answer.mHeld);
    }
    if (answer.mStartsObserving && !client.mIsGone) {
        Tell(mHandler->TakeChanges()); // its reply has told it those already
        client.mObserves = true;
        mTurnEnd = Parvane::LoopSource::BeforeSleep([this] { Tell(mHandler->TakeChanges()); });
    }
    if (answer.mStartsCapture && !client.mIsGone) {
        client.mCaptures = true;
        mHandler->TapLink([this](const LinkSession::Packet &packet) { OnPacket(packet); });
    }
    if (answer.mAfterwards) {
        answer.mAfterwards();
    }
}

void ControlServer::Reply(Client &client, const std::string &reply)
{
    if (client.IsStream()) {
        Enqueue(client, reply); // in its place among the rows or events
        return;
    }
    const int error = client.mSocket.Send(reply.data(), reply.size());
    if (error == 0) {
        return;
    }
    if (error == EAGAIN) {
        LogWarning("control: process %d does not read its replies and is dropped", client.mPid);
    }
    Drop(client);
}

void ControlServer::OnReading(ContextItem item, const SensorReading &reading)
{
    if (mTurnEnd.IsActive()) {
        Tell(mHandler->TakeChanges()); // first: what is on before what it reports
        Tell({ReadingMessage(mClock, item, reading)});
    }
    for (Client &client : mClients) {
        if (client.mWriter) {
            const std::int64_t timeMs = (mClock.MonotonicUs() - client.mStartUs) / 1000;
            const RecordingWriter::Row row = client.mWriter->MakeRow(timeMs, item, reading);
            Enqueue(client, row.mError.empty() ? StreamMessage("row", row.mText)
                                               : StreamMessage("left_out", row.mError));
        }
    }
}

void ControlServer::OnPacket(const LinkSession::Packet &packet)
{
    const std::string message = PacketMessage(mClock, packet);
    for (Client &client : mClients) {
        if (client.mCaptures) {
            Enqueue(client, message);
        }
    }
}

void ControlServer::Tell(const std::vector<std::string> &events)
{
    for (const std::string &event : events) {
        for (Client &client : mClients) {
            if (client.mObserves) {
                Enqueue(client, event);
            }
        }
    }
}

void ControlServer::Enqueue(Client &client, std::string message)
{
    if (client.mIsEnding || client.mIsGone) {
        return;
    }
    const bool isFull = client.mQueuedBytes + message.size() > kMaxQueuedBytes;
    if (!client.mWriter && (isFull || client.mMissed > 0)) {
        ++client.mMissed;
        return;
    }
    if (isFull) {
        LogWarning("control: process %d does not keep up with its recording and is dropped",
                   client.mPid);
        client.mIsEnding = true;
        client.mEndTimer.Arm(mClock.MonotonicUs() + kEndWaitMs * 1000,
                             [this, &client] { Drop(client); });
        message =
            ErrorMessage("too-slow", "the recording ends here: its rows were not taken in time");
    }
    const bool wasEmpty = client.mQueue.empty();
    client.mQueuedBytes += message.size();
    client.mQueue.push_back(std::move(message));
    if (wasEmpty) {
        Flush(client);
        if (!client.mIsGone && !client.mQueue.empty()) {
            Watch(client); // for room
        }
    }
}

void ControlServer::Flush(Client &client)
{
    while (!client.mQueue.empty()) {
        const std::string &message = client.mQueue.front();
        const int error = client.mSocket.Send(message.data(), message.size());
        if (error == EAGAIN) {
            return;
        }
        if (error != 0) {
            if (error != EPIPE && error != ECONNRESET) {
                LogWarning("control: process %d is dropped: %s", client.mPid,
                           ErrorText(error).c_str());
            }
            Drop(client);
            return;
        }
        client.mQueuedBytes -= message.size();
        client.mQueue.pop_front();
        if (client.mQueue.empty() && client.mMissed > 0) {
            client.mQueue.push_back("{\"event\":\"missed\",\"count\":" +
                                    std::to_string(std::exchange(client.mMissed, 0)) + "}");
            client.mQueuedBytes = client.mQueue.front().size();
        }
    }
    if (client.mIsEnding) {
        Drop(client);
    }
}

void ControlServer::Drop(Client &client)
{
    // It stays in the list until the next turn: the callers still use it, or walk the list.
    client.mIsGone = true;
    client.mSource.Remove();
    client.mEndTimer.Disarm();
    if (!mSweep.IsActive()) {
        mSweep = Parvane::LoopSource::Post([this] { Sweep(); });
    }
}

void ControlServer::Sweep()
{
    std::erase_if(mClients, [](const Client &client) { return client.mIsGone; });
    if (std::none_of(mClients.begin(), mClients.end(),
                     [](const Client &client) { return client.mObserves; })) {
        mTurnEnd.Remove();
    }
    if (std::none_of(mClients.begin(), mClients.end(),
                     [](const Client &client) { return client.mCaptures; })) {
        mHandler->TapLink(nullptr);
    }
}

} // namespace ParvanePlatform
