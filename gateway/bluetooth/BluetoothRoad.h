#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <gio/gio.h>

#include "BluetoothTimes.h"
#include "BluezSession.h"
#include "BusScope.h"
#include "LoopSource.h"
#include "ObjectPtr.h"
#include "PhoneSeat.h"
#include "Road.h"
#include "Settings.h"

namespace ParvaneGateway {

/**
 * The accessory link over Bluetooth Low Energy, through BlueZ on the system bus: docs/transports.md.
 *
 * Waits for the bus and for BlueZ, each life of which gets a BluezSession; that either is away is no
 * failure. While all is there and nobody comes it has no timer. Log lines tell each change of state,
 * once. Main-loop thread only.
 */
class BluetoothRoad : public Road, private BluezSessionEvents
{
public:
    /** @param seat  borrowed for the life of the road; may outlive it */
    BluetoothRoad(BluetoothSettings settings, PhoneSeat &seat, const BluetoothTimes &times);

    ~BluetoothRoad() override;

    BluetoothRoad(const BluetoothRoad &) = delete;
    BluetoothRoad &operator=(const BluetoothRoad &) = delete;

    void Open() override { Connect(); }

    /** Takes everything back, and waits for half a second at most until the bus has it. */
    void Shut() override;

    [[nodiscard]] bool IsShut() const override { return true; }

    [[nodiscard]] const char *Name() const override { return "bluetooth"; }
    [[nodiscard]] nlohmann::json Status() const override;

    /** How things stand, in words, such as "advertised on hci0". */
    [[nodiscard]] const std::string &State() const { return *mState; }

private:
    static void OnConnected(GObject *source, GAsyncResult *result, gpointer user_data) noexcept;
    static void OnClosed(GDBusConnection *connection, gboolean byPeer, GError *error,
                         gpointer user_data) noexcept;

    void Connect();
    void TakeConnection(Parvane::ObjectPtr<GDBusConnection> connection, const GError *error);
    void Disconnect();
    void OnBluez(const std::string &owner);
    void OnState(const std::string &state, bool isTrouble) override;
    void OnRefused(const std::string &reason) override;

    const BluetoothSettings mSettings;
    const BluetoothTimes mTimes;
    PhoneSeat &mSeat;
    /** Shared with what the seat calls, which may outlive the road. */
    std::shared_ptr<std::string> mState = std::make_shared<std::string>();
    std::map<std::string, std::uint64_t> mRefusals;
    Parvane::ObjectPtr<GCancellable> mConnecting;
    Parvane::ObjectPtr<GDBusConnection> mConnection;
    gulong mClosed = 0;
    Parvane::LoopSource mRetry;
    std::chrono::milliseconds mPause = mTimes.mFirstPause;
    /** Who BlueZ is. */
    std::unique_ptr<Parvane::BusScope> mBluez;
    std::unique_ptr<BluezSession> mSession;
};

} // namespace ParvaneGateway
