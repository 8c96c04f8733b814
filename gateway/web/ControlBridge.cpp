#include "ControlBridge.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <string_view>
#include <sys/socket.h>
#include <utility>

#include "UnixSocket.h"

namespace ParvaneGateway {

namespace {

constexpr char kNotAllowed[] =
    R"({"error":{"code":"not-allowed","message":"this token may but look"},"ok":false,"version":1})";
constexpr char kPong[] = R"({"ok":true,"pong":true,"version":1})";
constexpr char kNoObject[] =
    R"({"error":{"code":"bad-message","message":"the message is no JSON object"},"ok":false,"version":1})";

/** Whether a request, as it was understood here, asks the gateway itself whether it is there. */
bool IsPing(const std::string &forward)
{
    return forward == R"({"request":"ping"})" || forward == R"({"request":"ping","version":1})";
}

std::span<const std::uint8_t> AsBytes(const std::string &text)
{
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

} // namespace

bool MayView(const std::string &request, std::string &forward)
{
    constexpr std::array<std::string_view, 7> kLooks = {"status",  "config",  "log",   "record",
                                                        "observe", "capture", "replay"};
    constexpr std::ptrdiff_t kMostDepth = 64;
    forward.clear();
    const auto depth = std::count_if(request.begin(), request.end(), [](char character) {
        return character == '{' || character == '[';
    });
    if (depth > kMostDepth) {
        return false; // writing it would go as deep
    }
    const nlohmann::json object = nlohmann::json::parse(request, nullptr, false);
    if (!object.is_object()) {
        return false;
    }
    forward = object.dump();
    const auto kind = object.find("request");
    const bool isLook = kind != object.end() && kind->is_string() &&
                        std::find(kLooks.begin(), kLooks.end(),
                                  kind->get_ref<const std::string &>()) != kLooks.end();
    return isLook && object.size() == (object.contains("version") ? 2U : 1U);
}

ControlBridge::ControlBridge(std::unique_ptr<Parvane::WebStream> stream, std::string first,
                             const Parvane::WebSocketTimes &times, std::string path, Scope scope,
                             std::function<void()> onClosed)
    : mSocket(std::move(stream), std::move(first), Parvane::FrameKind::Text, kMostRequestBytes,
              kMostReplyBytes + 64, times, *this),
      mPath(std::move(path)),
      mScope(scope),
      mOnClosed(std::move(onClosed))
{}

void ControlBridge::Open()
{
    if (Connect() != 0) {
        mSocket.Close(Parvane::CloseCode::WatchAway, "the watch is away");
    } else {
        WatchService();
    }
    mSocket.Start();
}

void ControlBridge::End(Parvane::CloseCode code, const char *reason)
{
    mSocket.Close(code, reason);
}

int ControlBridge::Connect()
{
    sockaddr_un address{};
    if (const int error = Parvane::MakeSocketAddress(mPath, address); error != 0) {
        return error;
    }
    mService.Reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const bool isConnected =
        mService && ::connect(mService.Get(), reinterpret_cast<const sockaddr *>(&address),
                              sizeof address) == 0;
    return isConnected ? 0 : errno;
}

void ControlBridge::OnMessage(std::span<const std::uint8_t> message)
{
    const std::string request(reinterpret_cast<const char *>(message.data()), message.size());
    std::string forward;
    const bool mayView = MayView(request, forward);
    if (forward.empty()) {
        Say(kNoObject);
    } else if (IsPing(forward)) {
        Say(kPong);
    } else if (mScope == Scope::View && !mayView) {
        Say(kNotAllowed);
    } else if (mToService.Push(AsBytes(forward))) {
        Flush();
    } else {
        mSocket.Close(Parvane::CloseCode::TooMuch, "more than the watch takes");
    }
}

void ControlBridge::Say(const std::string &text)
{
    if (!mSocket.Send(AsBytes(text))) {
        mSocket.Close(Parvane::CloseCode::TooMuch, "answers are not read");
    }
}

void ControlBridge::Flush()
{
    while (!mToService.IsEmpty()) {
        const auto &front = mToService.Front();
        if (::send(mService.Get(), front.data(), front.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) {
            mToService.Pop();
        } else if (errno == EAGAIN) {
            mRests = true;
            mSocket.Rest();
            mOutput = Parvane::LoopSource::WatchFd(mService.Get(), G_IO_OUT, [this] {
                mOutput.Remove();
                Flush();
            });
            return;
        } else {
            mToService.Clear(); // its end is read where it is read
            return;
        }
    }
    if (std::exchange(mRests, false)) {
        mSocket.Resume();
    }
}

void ControlBridge::WatchService()
{
    mInput = Parvane::LoopSource::WatchFd(
        mService.Get(), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), [this] { OnReadable(); });
}

void ControlBridge::OnReadable()
{
    mHeld.resize(kMostReplyBytes);
    const ssize_t count = ::recv(mService.Get(), mHeld.data(), mHeld.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR || errno == ECONNRESET)) {
        return;
    }
    if (count <= 0) {
        mHeld.clear();
        mInput.Remove();
        mSocket.Close(Parvane::CloseCode::WatchAway, "the watch is away");
        return;
    }
    mHeld.resize(static_cast<std::size_t>(count));
    if (!mSocket.Send(AsBytes(mHeld))) {
        mInput.Remove(); // until OnRoom()
    }
}

void ControlBridge::OnRoom()
{
    if (!mInput.IsActive() && mService && mSocket.Send(AsBytes(mHeld))) {
        WatchService();
    }
}

void ControlBridge::OnEnd()
{
    mInput.Remove();
    mOutput.Remove();
    mService.Reset();
}

void ControlBridge::OnClosed()
{
    mOnClosed();
}

} // namespace ParvaneGateway
