#pragma once

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include <glib.h>

#include "ConfigFile.h"
#include "LoopSource.h"
#include "MetricsServer.h"
#include "MetricsText.h"
#include "OperationSocket.h"
#include "Publisher.h"
#include "Queue.h"
#include "ReadingText.h"
#include "ServiceManager.h"
#include "Signals.h"
#include "Ward.h"

namespace ParvaneHub {

/** The hub at work: watches, queue and broker, and the main loop until SIGTERM or SIGINT. */
class Hub : private WatchListener
{
public:
    /** Reads the configuration once more, for SIGHUP; nothing where it cannot be used, which is logged. */
    using Reload = std::function<std::optional<Settings>()>;

    /**
     * @param signals  borrowed for the life of the hub, with SIGHUP; the directories of `settings` exist
     * @throws std::runtime_error
     */
    Hub(Settings settings, const Parvane::Signals &signals, Reload reload);

    /** Serves until a signal comes. */
    void Run();

private:
    struct LoopRelease
    {
        void operator()(GMainLoop *loop) const noexcept { g_main_loop_unref(loop); }
    };

    void OnReading(const std::string &watch, const ParvaneHost::Told::NewReading &reading) override;
    void OnLinked(const std::string &watch, bool isLinked) override;
    void OnSteps(const std::string &watch, std::string text) override;

    void OnSignal();
    void UseNew(const Settings &settings);
    void Follow();
    void CommitSoon();
    void Commit();
    void KeepHouse();
    void End();

    nlohmann::json Status() const;
    nlohmann::json WatchesFrom(const std::string &name) const;
    std::string Metrics();
    void AddWatches(MetricsText &text) const;

    Settings mSettings;
    const Parvane::Signals &mSignals;
    Reload mReload;
    std::unique_ptr<GMainLoop, LoopRelease> mLoop;
    Parvane::OperationSocket mOperation;
    Topics mTopics;
    Queue mQueue;
    Publisher mPublisher;
    ReadingWriter mWriter;
    Ward mWard;
    std::optional<MetricsServer> mMetrics;
    Parvane::ServiceManager mManager;
    Parvane::LoopSource mSignalSource;
    Parvane::LoopSource mCommit;
    Parvane::LoopSource mHouse;
    std::string mTrouble;                     // with the disk; empty while there is none
    std::array<std::uint64_t, 5> mReadings{}; // by sensor
};

} // namespace ParvaneHub
