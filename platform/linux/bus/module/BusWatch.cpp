#include "BusWatch.h"

#include <utility>

#include "BusScope.h"

namespace ParvanePlatform {

BusWatch::BusWatch(RetryTimer &retry, Connect connect, Up up, Down down)
    : mRetry(retry), mConnect(std::move(connect)), mUp(std::move(up)), mDown(std::move(down))
{}

void BusWatch::Start()
{
    mConnection = mConnect();
    if (!mConnection) {
        mRetry.Schedule([this] { Start(); });
        return;
    }
    mRetry.Reset();
    mClosed = g_signal_connect(mConnection.get(), "closed", G_CALLBACK(OnClosed), this);
    mUp(mConnection.get());
}

void BusWatch::Stop()
{
    Disconnect();
    mRetry.Cancel();
}

void BusWatch::OnClosed(GDBusConnection * /*connection*/, gboolean /*byPeer*/, GError * /*error*/,
                        gpointer user_data) noexcept
{
    auto *self = static_cast<BusWatch *>(user_data);
    Parvane::RunBusHandler(self->mDown);
    Parvane::RunBusHandler([self] {
        self->Disconnect();
        self->mRetry.Schedule([self] { self->Start(); });
    });
}

void BusWatch::Disconnect()
{
    if (mConnection) {
        g_signal_handler_disconnect(mConnection.get(), mClosed);
        mConnection.reset();
    }
}

} // namespace ParvanePlatform
