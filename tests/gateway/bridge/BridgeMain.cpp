/**
 * @file
 * The gateway's road over Bluetooth as a socket: whoever connects there is the central of a bonded phone, whose
 * packets are the values of the two characteristics. Behind it is the real gateway, with a stand-in for BlueZ.
 *
 * Usage: parvane-bluetooth-bridge WATCH-FOLDER SOCKET
 *
 * Logs "bridge: serving" when the watch is advertised; ends with 0 on SIGTERM, with 1 when there is no gateway.
 */

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <list>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <glib-unix.h>

#include "BluezNames.h"
#include "ChildProcess.h"
#include "FakeBluez.h"
#include "FakeWatch.h"
#include "LoopSource.h"
#include "PrivateSystemBus.h"
#include "TestLoop.h"
#include "UnixSocket.h"

using namespace ParvaneGateway;
using Parvane::LoopSource;
using Parvane::UniqueFd;

namespace {

constexpr char kAdapter[] = "hci0";
constexpr std::uint16_t kMtu = 517;
constexpr std::size_t kLongestValue = 512;
constexpr char kWatchAway[] = "0x82";
constexpr std::chrono::milliseconds
    kPause(50); // before a phone comes again to a watch that was away

bool HasHungUp(int fd)
{
    pollfd state{fd, POLLRDHUP, 0};
    return ::poll(&state, 1, 0) > 0;
}

/** Whether the other end is closed and nothing of it is left to be read. */
bool IsAtEnd(int fd)
{
    int left = 0;
    return HasHungUp(fd) && ::ioctl(fd, FIONREAD, &left) == 0 && left == 0;
}

/** One phone, from its coming at the socket to the end of either side. Nothing of it blocks. */
class Phone
{
public:
    Phone(FakeBluez &bluez, UniqueFd host, int number)
        : mBluez(bluez),
          mHost(std::move(host)),
          mDevice(bluez.AddDevice(kAdapter, AddressOf(number), true)),
          mSeen(bluez.Notified().size())
    {
        Subscribe();
    }

    ~Phone()
    {
        mBluez.SetConnected(mDevice, false);
        mBluez.Remove(mDevice);
    }

    Phone(const Phone &) = delete;
    Phone &operator=(const Phone &) = delete;

    /** Goes on, after each turn of the loop. @return false when it is over */
    bool Turn()
    {
        if (mAnswer && mAnswer->mIsDone) {
            OnAnswer(*std::exchange(mAnswer, nullptr));
        }
        if (mIsSubscribed) {
            ToHost();
            FromHost();
        }
        const bool isGivenUp = !mIsSubscribed && IsAtEnd(mHost.Get());
        const bool isThrough = mIsSubscribed && !IsConnected() && !mNotify && !mForHost;
        return !isThrough && !isGivenUp && !mIsOver;
    }

    /** Whether its host has gone, and what it has left is on its way to the watch. */
    [[nodiscard]] bool IsLeaving() const { return HasHungUp(mHost.Get()); }

private:
    static std::string AddressOf(int number)
    {
        char text[18];
        std::snprintf(text, sizeof text, "C0:FF:EE:00:%02X:%02X", number >> 8 & 0xFF,
                      number & 0xFF);
        return text;
    }

    [[nodiscard]] bool IsConnected() const
    {
        return g_variant_get_boolean(mBluez.Get(mDevice, Bluez::kDevice, "Connected")) != FALSE;
    }

    void Subscribe() { mAnswer = mBluez.AcquireNotify(mDevice, kMtu); }

    void OnAnswer(FakeBluez::Outcome &answer)
    {
        if (!mIsSubscribed) {
            OnSubscribed(answer);
        } else if (answer.mFd) {
            mWrite = std::move(answer.mFd);
        } else if (!std::exchange(mIsWriting, true)) {
            mAnswer = mBluez.WriteValue(mDevice, *mForWatch, kMtu);
        } else {
            if (!answer.mError.empty()) {
                std::cerr << "bridge: not written: " << answer.mMessage << std::endl;
            }
            mIsWriting = false;
            mForWatch.reset();
        }
    }

    void OnSubscribed(FakeBluez::Outcome &answer)
    {
        if (answer.mMessage == kWatchAway) {
            ComeAgain();
            return;
        }
        mNotify = std::move(answer.mFd);
        mIsSubscribed = mNotify || answer.mError == "org.freedesktop.DBus.Error.NotSupported";
        mIsOver = !mIsSubscribed;
    }

    void ComeAgain()
    {
        mPause = LoopSource::After(kPause, [this] {
            if (IsConnected()) { // the gateway ends that first
                ComeAgain();
                return;
            }
            mBluez.SetConnected(mDevice, true);
            Subscribe();
        });
    }

    /** Brings what has been notified, by the descriptor until that is closed, by signals from then on. */
    void ToHost()
    {
        mNotifyWatch.Remove();
        mRoomAtHost.Remove();
        while (NextForHost()) {
            if (::send(mHost.Get(), mForHost->data(), mForHost->size(), MSG_NOSIGNAL) < 0 &&
                errno == EAGAIN) {
                mRoomAtHost = LoopSource::WatchFd(mHost.Get(), G_IO_OUT, [] {});
                return;
            }
            mForHost.reset();
        }
        if (mNotify) {
            mNotifyWatch = Readable(mNotify.Get());
        }
    }

    bool NextForHost()
    {
        if (!mForHost && mNotify) {
            mForHost.emplace(kLongestValue);
            const ssize_t size = ::recv(mNotify.Get(), mForHost->data(), mForHost->size(), 0);
            if (size > 0) {
                mForHost->resize(static_cast<std::size_t>(size));
                return true;
            }
            mForHost.reset();
            if (size < 0 && errno == EAGAIN) {
                return false;
            }
            mNotify.Reset();
        }
        if (!mForHost && mSeen < mBluez.Notified().size()) {
            mForHost = mBluez.Notified()[mSeen++];
        }
        return mForHost.has_value();
    }

    /** As BlueZ does, tries for a descriptor with each value that there is none for. */
    void FromHost()
    {
        mHostWatch.Remove();
        mRoomAtWatch.Remove();
        while (!mAnswer && NextForWatch()) {
            if (!mWrite) {
                mAnswer = mBluez.AcquireWrite(mDevice, kMtu);
                return;
            }
            if (::send(mWrite.Get(), mForWatch->data(), mForWatch->size(), MSG_NOSIGNAL) >= 0) {
                mForWatch.reset();
            } else if (errno == EAGAIN) {
                mRoomAtWatch = LoopSource::WatchFd(mWrite.Get(), G_IO_OUT, [] {});
                return;
            } else {
                mWrite.Reset();
            }
        }
        if (!mAnswer && !mIsOver) {
            mHostWatch = Readable(mHost.Get());
        }
    }

    bool NextForWatch()
    {
        while (!mForWatch && !mIsOver) {
            mForWatch.emplace(65536);
            const ssize_t size = ::recv(mHost.Get(), mForWatch->data(), mForWatch->size(), 0);
            if (size > 0 && static_cast<std::size_t>(size) <= kLongestValue) {
                mForWatch->resize(static_cast<std::size_t>(size));
                return true;
            }
            mForWatch.reset(); // no value that a phone writes
            if (size < 0 && errno == EAGAIN) {
                return false;
            }
            mIsOver = size <= 0 && IsAtEnd(mHost.Get());
        }
        return mForWatch.has_value();
    }

    /** Wakes the loop. */
    static LoopSource Readable(int fd)
    {
        return LoopSource::WatchFd(fd, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), [] {});
    }

    FakeBluez &mBluez;
    UniqueFd mHost;
    std::string mDevice;
    std::size_t mSeen; // of the values that were notified by signals
    FakeBluez::OutcomePtr mAnswer;
    bool mIsSubscribed = false;
    bool mIsWriting = false; // by a call, which mAnswer is of
    bool mIsOver = false;
    UniqueFd mNotify;
    UniqueFd mWrite;
    std::optional<Bytes> mForHost;
    std::optional<Bytes> mForWatch;
    LoopSource mPause;
    LoopSource mNotifyWatch;
    LoopSource mRoomAtHost;
    LoopSource mHostWatch;
    LoopSource mRoomAtWatch;
};

UniqueFd Listen(const char *path)
{
    sockaddr_un address{};
    Parvane::MakeSocketAddress(path, address);
    UniqueFd listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (::bind(listener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(listener.Get(), 8) != 0) {
        throw std::runtime_error(std::string("no socket at ") + path);
    }
    return listener;
}

Parvane::ChildProcess StartGateway(const TestFolder &folder, const char *watch)
{
    const std::string file = folder.Path("gateway.conf");
    std::ofstream(file) << "[watch]\ndirectory=" << watch
                        << "\n[web]\nenabled=no\n[directories]\nstate=" << folder.Path("state")
                        << "\nruntime=" << folder.Path("run") << '\n';
    Parvane::ChildProcess::Start start;
    start.mCommand = {PARVANE_GATEWAY_PROGRAM, "--config", file};
    start.mEnvironment = Parvane::ChildProcess::OwnEnvironment();
    start.mErrors = STDERR_FILENO;
    start.mPrepare = [] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); };
    return Parvane::ChildProcess(start);
}

/** Until SIGTERM. */
void Serve(FakeBluez &bluez, int listener)
{
    bool isOver = false;
    g_unix_signal_add(
        SIGTERM,
        [](gpointer over) -> gboolean {
            *static_cast<bool *>(over) = true;
            return G_SOURCE_CONTINUE;
        },
        &isOver);
    const LoopSource call = LoopSource::WatchFd(listener, G_IO_IN, [] {});
    std::list<Phone> phones;
    UniqueFd next; // who has come after another one had gone finds it gone
    int number = 0;
    while (!isOver) {
        g_main_context_iteration(nullptr, TRUE);
        if (!next) {
            next.Reset(::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        }
        phones.remove_if([](Phone &phone) { return !phone.Turn(); });
        if (next && std::none_of(phones.begin(), phones.end(),
                                 [](const Phone &phone) { return phone.IsLeaving(); })) {
            phones.emplace_back(bluez, std::exchange(next, UniqueFd()), number++);
        }
    }
}

int Run(const char *watch, const char *socket)
{
    const TestFolder folder;
    const PrivateSystemBus bus;
    FakeBluez bluez(bus.Address());
    bluez.AddAdapter(kAdapter);
    Parvane::ChildProcess gateway = StartGateway(folder, watch);
    const auto hasEnded = [&gateway] {
        return gateway.WaitForEnd(std::chrono::milliseconds(0)).has_value();
    };
    if (!RunUntil([&] { return bluez.HasAdvertisement() || hasEnded(); }) ||
        !bluez.HasAdvertisement()) {
        throw std::runtime_error("the watch is not advertised");
    }
    const UniqueFd listener = Listen(socket);
    std::cerr << "bridge: serving" << std::endl;
    Serve(bluez, listener.Get());
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return argc == 3 ? Run(argv[1], argv[2]) : 2;
    } catch (const std::exception &failure) {
        std::cerr << "bridge: " << failure.what() << std::endl;
        return 1;
    }
}
