#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/types.h>
#include <utility>

#include "Deadline.h"
#include "Error.h"
#include "Guard.h"
#include "Link.h"
#include "RuntimeDirectory.h"
#include "SessionHandle.h"
#include "UniqueFd.h"
#include "UnixSocket.h"
#include "WireFormat.h"
#include "parvane/host.h"

using namespace ParvaneHost;
using Parvane::UniqueFd;

/** What the opaque handle is: a session, and the socket on which it is carried on without a wait. */
struct parvane_watch
{
public:
    parvane_watch(std::string path, parvane_session *session)
        : mSession(session), mPath(std::move(path))
    {
        mSession->mIsOfAWatch = true;
    }
    ~parvane_watch() { delete mSession; }

    parvane_watch(const parvane_watch &) = delete;
    parvane_watch &operator=(const parvane_watch &) = delete;

    [[nodiscard]] parvane_session *Handle() const { return mSession; }
    [[nodiscard]] int Fd() const { return mSocket.Get(); }
    [[nodiscard]] bool WaitsForRoom() const { return mUnsent.has_value(); }

    /** Whether there is something to do that no descriptor tells of. */
    [[nodiscard]] bool HasWork() const
    {
        return mSession->mIsAsked || The().WantsLink() != static_cast<bool>(mSocket);
    }

    void Process()
    {
        mSession->mIsAsked = false;
        const Moment now = MomentOf(nullptr);
        ReadAll(now);
        The().Advance(now);
        if (!The().WantsLink()) {
            Close();
        } else if (!mSocket) {
            Connect(now);
        }
        SendAll(now);
    }

private:
    [[nodiscard]] Session &The() const { return mSession->mSession; }

    void Close()
    {
        mSocket.Reset();
        mUnsent.reset();
    }

    void Lose(LinkError::Reason reason, int error, Moment now)
    {
        Close();
        The().Lost(Describe(LinkError{reason, error, mPath}), now);
    }

    void Connect(Moment now)
    {
        const int error = Parvane::ConnectToSocket(
            mPath, Parvane::Deadline::After(std::chrono::milliseconds{0}), {}, mSocket);
        mHasHeard = false;
        if (error != 0) {
            Lose(LinkError::Reason::CannotConnect, error, now);
        } else {
            The().Connected(now, RunOfPeer());
        }
    }

    [[nodiscard]] std::string RunOfPeer() const
    {
        UniqueFd same(::dup(mSocket.Get()));
        return same ? Link(std::move(same), mPath).PeerRun() : std::string();
    }

    /** Takes the packets that are there; not without end, where the watch is faster than this. */
    void ReadAll(Moment now)
    {
        constexpr int kMostAtOnce = 1024;
        for (int i = 0; i < kMostAtOnce && mSocket && ReadOne(now); ++i) {
        }
    }

    /** @return false when there is nothing left */
    bool ReadOne(Moment now)
    {
        std::array<std::uint8_t, WireFormat::kMaxMessageBytes> buffer; // as it is: one copy less
        const ssize_t size =
            ::recv(mSocket.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (size < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                Lose(LinkError::Reason::Closed, 0, now);
            }
            return errno == EINTR;
        }
        if (size == 0 && HasHungUp()) { // an empty packet reads as 0 bytes, too
            Lose(mHasHeard ? LinkError::Reason::Closed : LinkError::Reason::AnotherHost, 0, now);
            return false;
        }
        mHasHeard = true;
        The().Take({buffer.data(), std::min(static_cast<std::size_t>(size), buffer.size())}, now);
        return true;
    }

    [[nodiscard]] bool HasHungUp() const
    {
        pollfd polled{mSocket.Get(), POLLRDHUP, 0};
        return ::poll(&polled, 1, 0) != 0;
    }

    void SendAll(Moment now)
    {
        while (mSocket) {
            if (!mUnsent) {
                mUnsent = The().NextPacket();
            }
            if (!mUnsent) {
                return;
            }
            const ssize_t sent = ::send(mSocket.Get(), mUnsent->data(), mUnsent->size(),
                                        MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent < 0 && errno == EINTR) {
                continue;
            }
            if (sent < 0 && errno == EAGAIN) {
                return;
            }
            mUnsent.reset();
            if (sent < 0) {
                Lose(LinkError::Reason::Closed, 0, now);
            }
        }
    }

    parvane_session *mSession;
    std::string mPath;
    UniqueFd mSocket;
    std::optional<Bytes> mUnsent;
    bool mHasHeard = false;
};

namespace {

std::string DefaultPath()
{
    const auto environment = [](const char *name) -> const char * { return std::getenv(name); };
    const std::string link = Parvane::ValueOf(environment, "PARVANE_LINK");
    return link.empty() ? Parvane::RuntimeDirectory(environment, "parvane") + "/link.sock" : link;
}

} // namespace

int parvane_watch_new(const char *path, const parvane_options *options,
                      parvane_watch **watch) noexcept
{
    return Guarded([=] {
        const std::string socket = path == nullptr ? DefaultPath() : path;
        if (watch == nullptr || socket.empty() || socket.size() > Parvane::LongestSocketPath()) {
            return static_cast<int>(PARVANE_EINVAL);
        }
        parvane_session *session = nullptr;
        const int error = NewSession(options, &session);
        if (error == 0) {
            std::unique_ptr<parvane_session> owner(session);
            *watch = new parvane_watch(socket, session);
            [[maybe_unused]] const parvane_session *const theirs = owner.release();
        }
        return error;
    });
}

void parvane_watch_free(parvane_watch *watch) noexcept
{
    delete watch;
}

parvane_session *parvane_watch_session(parvane_watch *watch) noexcept
{
    return watch == nullptr ? nullptr : watch->Handle();
}

int parvane_watch_fd(const parvane_watch *watch) noexcept
{
    return watch == nullptr ? static_cast<int>(PARVANE_EINVAL) : watch->Fd();
}

short parvane_watch_poll_events(const parvane_watch *watch) noexcept
{
    return watch != nullptr && watch->WaitsForRoom() ? POLLIN | POLLOUT : POLLIN;
}

int parvane_watch_timeout_ms(const parvane_watch *watch) noexcept
{
    if (watch == nullptr) {
        return PARVANE_EINVAL;
    }
    return watch->HasWork() ? 0 : parvane_session_timeout_ms(watch->Handle(), nullptr);
}

int parvane_watch_process(parvane_watch *watch) noexcept
{
    return Guarded([=] {
        if (watch == nullptr) {
            return static_cast<int>(PARVANE_EINVAL);
        }
        watch->Process();
        return 0;
    });
}
