#include "Gateway.h"

#include <algorithm>

#include "Log.h"

namespace ParvaneGateway {

Gateway::Gateway(const Settings &settings, const Parvane::Signals &signals)
    : mSignals(signals),
      mLoop(g_main_loop_new(nullptr, FALSE)),
      mSeat(settings.mWatchDirectory + "/link.sock")
{}

void Gateway::Run()
{
    mSignalSource = LoopSource::WatchFd(mSignals.Fd(), G_IO_IN, [this] { OnSignal(); });
    for (const auto &road : mRoads) {
        road->Open();
    }
    LogInfo("serving");
    g_main_loop_run(mLoop.get());
}

void Gateway::OnSignal()
{
    if (mSignals.Take() == 0) {
        return;
    }
    mSignalSource.Remove();
    LogInfo("ending");
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
    mShutTimer = LoopSource::After(kLook, [this] { EndWhenShut(); });
}

} // namespace ParvaneGateway
