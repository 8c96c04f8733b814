#include "BusWatch.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "bus/module/Subscription.h"

namespace ParvanePlatform {

namespace {

constexpr int kFirstRetrySeconds = 1;
constexpr int kLongestRetrySeconds = 60;
constexpr std::int64_t kUsPerSecond = 1'000'000;

} // namespace

BusWatch::BusWatch(Connect connect, Up up, Down down)
    : mConnect(std::move(connect)), mUp(std::move(up)), mDown(std::move(down))
{}

BusWatch::~BusWatch()
{
    Disconnect();
}

void BusWatch::Start()
{
    mConnection = mConnect();
    if (!mConnection) {
        RetryLater();
        return;
    }
    mRetrySeconds = 0;
    mClosed = g_signal_connect(mConnection.get(), "closed", G_CALLBACK(OnClosed), this);
    mUp(mConnection.get());
}

void BusWatch::OnClosed(GDBusConnection * /*connection*/, gboolean /*byPeer*/, GError * /*error*/,
                        gpointer user_data) noexcept
{
    auto *self = static_cast<BusWatch *>(user_data);
    RunBusHandler([self] {
        self->mDown();
        self->Disconnect();
        self->RetryLater();
    });
}

void BusWatch::Disconnect()
{
    if (mConnection) {
        g_signal_handler_disconnect(mConnection.get(), mClosed);
        mConnection.reset();
    }
}

void BusWatch::RetryLater()
{
    mRetrySeconds =
        mRetrySeconds == 0 ? kFirstRetrySeconds : std::min(mRetrySeconds * 2, kLongestRetrySeconds);
    mRetry =
        LoopSource::At(g_get_monotonic_time() + mRetrySeconds * kUsPerSecond, [this] { Start(); });
}

} // namespace ParvanePlatform
