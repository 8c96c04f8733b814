#include "Gateway.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <nlohmann/json.hpp>

#include "BluetoothRoad.h"
#include "Log.h"
#include "WebRoad.h"

namespace ParvaneGateway {

namespace {

std::string TimeText(std::chrono::system_clock::time_point point)
{
    const std::time_t time = std::chrono::system_clock::to_time_t(point);
    std::tm parts{};
    std::array<char, 32> text{};
    ::gmtime_r(&time, &parts);
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text.data();
}

} // namespace

Gateway::Gateway(const Settings &settings, const Parvane::Signals &signals)
    : mSignals(signals),
      mLoop(g_main_loop_new(nullptr, FALSE)),
      mSeat(settings.mWatchDirectory + "/link.sock"),
      mTokens(settings.mStateDirectory),
      mOperation(settings.mRuntimeDirectory, "gateway")
{
    mOperation.Serve("status", [this](const nlohmann::json & /*request*/) { return Status(); });
    if (settings.mWeb.mEnabled) {
        mRoads.push_back(std::make_unique<WebRoad>(settings, mSeat, mTokens, WebTimes{}));
    }
    if (settings.mBluetooth.mEnabled) {
        mRoads.push_back(
            std::make_unique<BluetoothRoad>(settings.mBluetooth, mSeat, BluetoothTimes{}));
    }
}

void Gateway::Run()
{
    mSignalSource = Parvane::LoopSource::WatchFd(mSignals.Fd(), G_IO_IN, [this] { OnSignal(); });
    for (const auto &road : mRoads) {
        road->Open();
    }
    Parvane::LogInfo("serving");
    mManager.OnReady();
    g_main_loop_run(mLoop.get());
}

nlohmann::json Gateway::Status() const
{
    const PhoneSeat::Status &seat = mSeat.GetStatus();
    nlohmann::json refusals = {{"another phone is connected", seat.mRefusedForAnother},
                               {"the watch is away", seat.mRefusedForWatch}};
    nlohmann::json roads = nlohmann::json::object();
    for (const auto &road : mRoads) {
        nlohmann::json status = road->Status();
        refusals.update(status.value("refusals", nlohmann::json::object()));
        status.erase("refusals");
        roads[road->Name()] = std::move(status);
    }
    nlohmann::json phone;
    if (seat.mPhone) {
        phone = {{"road", seat.mPhone->mRoad},
                 {"name", seat.mPhone->mName},
                 {"since", TimeText(seat.mSince)}};
    }
    return {{"version", PARVANE_GATEWAY_VERSION},
            {"phone", phone},
            {"phones", seat.mPhones},
            {"packets_to_watch", seat.mPacketsToWatch},
            {"packets_to_phone", seat.mPacketsToPhone},
            {"refusals", refusals},
            {"roads", roads}};
}

void Gateway::OnSignal()
{
    if (mSignals.Take() == 0) {
        return;
    }
    mSignalSource.Remove();
    Parvane::LogInfo("ending");
    mManager.OnStopping();
    mSeat.Stop();
    for (const auto &road : mRoads) {
        road->Shut();
    }
    EndWhenShut();
}

void Gateway::EndWhenShut()
{
    constexpr std::chrono::milliseconds kLook{20};
    const bool isShut =
        std::all_of(mRoads.begin(), mRoads.end(), [](const auto &road) { return road->IsShut(); });
    if (isShut || ++mShutTurns > kShutTime / kLook) {
        g_main_loop_quit(mLoop.get());
        return;
    }
    mShutTimer = Parvane::LoopSource::After(kLook, [this] { EndWhenShut(); });
}

} // namespace ParvaneGateway
