#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include <glib.h>

#include "LoopSource.h"
#include "OperationSocket.h"
#include "PhoneSeat.h"
#include "Road.h"
#include "ServiceManager.h"
#include "Settings.h"
#include "Signals.h"
#include "TokenStore.h"

namespace ParvaneGateway {

/** The gateway at work: the seat, the roads to it, and the main loop until SIGTERM or SIGINT. */
class Gateway
{
public:
    /** How long the ends of connections may take at the end. */
    static constexpr std::chrono::milliseconds kShutTime{2500};

    /**
     * @param settings  it and `signals` are borrowed for the life of the gateway; its directories exist
     * @throws std::runtime_error
     */
    Gateway(const Settings &settings, const Parvane::Signals &signals);

    /**
     * Serves until a signal comes.
     *
     * @throws std::runtime_error when a road cannot be served
     */
    void Run();

private:
    struct LoopRelease
    {
        void operator()(GMainLoop *loop) const noexcept { g_main_loop_unref(loop); }
    };

    nlohmann::json Status() const;
    void OnSignal();
    void EndWhenShut();

    const Parvane::Signals &mSignals;
    std::unique_ptr<GMainLoop, LoopRelease> mLoop;
    PhoneSeat mSeat;
    TokenStore mTokens;
    Parvane::OperationSocket mOperation;
    std::vector<std::unique_ptr<Road>> mRoads;
    Parvane::ServiceManager mManager;
    Parvane::LoopSource mSignalSource;
    Parvane::LoopSource mShutTimer;
    int mShutTurns = 0;
};

} // namespace ParvaneGateway
