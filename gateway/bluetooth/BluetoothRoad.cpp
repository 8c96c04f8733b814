#include "BluetoothRoad.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "BluezNames.h"
#include "Log.h"

namespace ParvaneGateway {

namespace {

constexpr int kLongestFlushMs = 500;

} // namespace

BluetoothRoad::BluetoothRoad(BluetoothSettings settings, PhoneSeat &seat,
                             const BluetoothTimes &times)
    : mSettings(std::move(settings)), mTimes(times), mSeat(seat)
{
    const std::weak_ptr<std::string> alive = mState;
    seat.AddListener([this, alive] {
        if (!alive.expired() && mSession) {
            mSession->OnSeatChanged();
        }
    });
}

BluetoothRoad::~BluetoothRoad()
{
    BluetoothRoad::Shut();
}

void BluetoothRoad::Shut()
{
    if (mConnecting) {
        g_cancellable_cancel(mConnecting.get());
        mConnecting.reset();
    }
    mRetry.Remove();
    Disconnect();
}

nlohmann::json BluetoothRoad::Status() const
{
    return {{"text", *mState}, {"refusals", mRefusals}};
}

void BluetoothRoad::Connect()
{
    GError *error = nullptr;
    char *address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    const Parvane::ErrorPtr failure(error);
    if (address == nullptr) {
        TakeConnection(nullptr, failure.get());
        return;
    }
    mConnecting.reset(g_cancellable_new());
    // The callback tells by its cancellable whether there still is a road.
    g_dbus_connection_new_for_address(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, mConnecting.get(), OnConnected, this);
    g_free(address);
}

void BluetoothRoad::OnConnected(GObject * /*source*/, GAsyncResult *result,
                                gpointer user_data) noexcept
{
    GError *error = nullptr;
    Parvane::ObjectPtr<GDBusConnection> connection(
        g_dbus_connection_new_for_address_finish(result, &error));
    const Parvane::ErrorPtr failure(error);
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE) {
        return; // the road has gone
    }
    auto *self = static_cast<BluetoothRoad *>(user_data);
    Parvane::RunBusHandler([&] { self->TakeConnection(std::move(connection), failure.get()); });
}

void BluetoothRoad::TakeConnection(Parvane::ObjectPtr<GDBusConnection> connection,
                                   const GError *error)
{
    mConnecting.reset();
    mConnection = std::move(connection);
    if (!mConnection) {
        OnState(std::string("there is no system bus: ") + error->message, true);
        mRetry = Parvane::LoopSource::After(mPause, [this] { Connect(); });
        mPause = std::min(2 * mPause, Registration::kLongestPause);
        return;
    }
    mPause = mTimes.mFirstPause;
    mClosed = g_signal_connect(mConnection.get(), "closed", G_CALLBACK(OnClosed), this);
    mBluez = std::make_unique<Parvane::BusScope>(mConnection.get(), Bluez::kName);
    mBluez->WatchOwner(Parvane::BusScope::AutoStart::No,
                       [this](const std::string &owner) { OnBluez(owner); });
}

void BluetoothRoad::OnClosed(GDBusConnection * /*connection*/, gboolean /*byPeer*/,
                             GError * /*error*/, gpointer user_data) noexcept
{
    auto *self = static_cast<BluetoothRoad *>(user_data);
    Parvane::RunBusHandler([self] {
        self->Disconnect();
        self->OnState("the system bus is lost", true);
        self->mRetry = Parvane::LoopSource::After(self->mPause, [self] { self->Connect(); });
    });
}

void BluetoothRoad::Disconnect()
{
    mSession.reset();
    mBluez.reset();
    if (mConnection) {
        g_signal_handler_disconnect(mConnection.get(), mClosed);
        if (g_dbus_connection_is_closed(mConnection.get()) == FALSE) {
            Parvane::FlushBus(mConnection.get(), kLongestFlushMs);
            g_dbus_connection_close(mConnection.get(), nullptr, nullptr, nullptr);
        }
        mConnection.reset();
    }
}

void BluetoothRoad::OnBluez(const std::string &owner)
{
    mSession.reset();
    if (owner.empty()) {
        OnState("BlueZ is not running", true);
        return;
    }
    BluezSessionEvents &events = *this;
    mSession =
        std::make_unique<BluezSession>(mConnection.get(), owner, mSettings, mTimes, mSeat, events);
}

void BluetoothRoad::OnRefused(const std::string &reason)
{
    if (!reason.empty()) {
        ++mRefusals[reason];
    }
}

void BluetoothRoad::OnState(const std::string &state, bool isTrouble)
{
    if (std::exchange(*mState, state) == state) {
        return;
    }
    if (isTrouble) {
        Parvane::LogWarning("bluetooth: " + state);
    } else {
        Parvane::LogInfo("bluetooth: " + state);
    }
}

} // namespace ParvaneGateway
