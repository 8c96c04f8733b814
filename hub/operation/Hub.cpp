#include "Hub.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "Log.h"

namespace ParvaneHub {

namespace {

using Json = nlohmann::json;
using ParvaneHost::Sensor;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::array kSensors = {Sensor::HeartRate, Sensor::WearState, Sensor::Activity,
                                 Sensor::Pedometer};

std::size_t IndexOf(Sensor sensor)
{
    return static_cast<std::size_t>(sensor);
}

Json StatusOf(const Watch &watch)
{
    const Watch::Status &status = watch.GetStatus();
    Json ages = Json::object();
    const auto now = ParvaneHost::Now().mWall;
    for (const Sensor sensor : kSensors) {
        if (const auto latest = watch.Latest(sensor)) {
            ages[std::string(LevelOf(sensor))] = latest->Age(now).count() / 1000;
        }
    }
    return {{"name", watch.Name()},
            {"linked", status.mIsLinked},
            {"readings", status.mReadings},
            {"losses", status.mLosses},
            {"nonsense", status.mNonsense},
            {"rests", status.mRests},
            {"unanswered", status.mUnanswered},
            {"problem", status.mProblem},
            {"ages_s", ages}};
}

} // namespace

Hub::Hub(Settings settings, const Parvane::Signals &signals, Reload reload)
    : mSettings(std::move(settings)),
      mSignals(signals),
      mReload(std::move(reload)),
      mLoop(g_main_loop_new(nullptr, FALSE)),
      mOperation(mSettings.mRuntimeDirectory, "hub"),
      mTopics{mSettings.mTopic, mSettings.mDiscovery},
      mQueue(mSettings.mStateDirectory + "/queue.db",
             {mSettings.mQueue.mMostBytes, mSettings.mQueue.mMostAge}),
      mPublisher(mSettings.mBroker, mTopics, mQueue),
      mWard(*this, [this] { Commit(); })
{
    mPublisher.SetOnWork([this] { CommitSoon(); });
    mOperation.Serve("status", [this](const Json & /*request*/) { return Status(); });
    mOperation.Serve("watches", [this](const Json &request) {
        return WatchesFrom(request.value("from", std::string()));
    });
    if (const Listen listen = ParseListen(mSettings.mMetrics); !listen.mAddress.empty()) {
        mMetrics.emplace(listen, [this] { return Metrics(); });
    }
}

void Hub::Run()
{
    mSignalSource = Parvane::LoopSource::WatchFd(mSignals.Fd(), G_IO_IN, [this] { OnSignal(); });
    mPublisher.Start();
    Follow();
    KeepHouse();
    Parvane::LogInfo("serving " + std::to_string(mWard.Size()) + " watches" +
                     (mMetrics ? ", metrics on port " + std::to_string(mMetrics->Port()) : ""));
    mManager.OnReady();
    g_main_loop_run(mLoop.get());
}

// --- what the watches tell ----------------------------------------------------------------------

void Hub::OnReading(const std::string &watch, const ParvaneHost::Told::NewReading &reading)
{
    const Wishes &wishes = mSettings.mWatches.at(watch).mWishes;
    const Sensor sensor = reading.mObservation.mSensor;
    // What was never asked for, of a watch that another phone had before.
    if ((sensor == Sensor::Pedometer && !wishes.mSteps) ||
        (sensor == Sensor::Activity && !wishes.mActivity)) {
        return;
    }
    if (auto text = mWriter.Write(watch, reading)) {
        ++mReadings.at(IndexOf(sensor));
        mQueue.Put({mTopics.Watch(watch, text->mLevel), std::move(text->mBody), text->mAtMs,
                    text->mIsState});
    }
}

void Hub::OnLinked(const std::string &watch, bool isLinked)
{
    mPublisher.Announce(watch, mSettings.mWatches.at(watch).mWishes, isLinked);
}

void Hub::OnSteps(const std::string &watch, std::string text)
{
    mQueue.SaveSteps(watch, std::move(text));
}

// --- what is done -------------------------------------------------------------------------------

void Hub::CommitSoon()
{
    if (!mCommit.IsActive()) {
        mCommit = Parvane::LoopSource::Post([this] { Commit(); });
    }
}

/** Writes down what has come, and sends it on. */
void Hub::Commit()
{
    mCommit.Remove();
    if (!mTrouble.empty() || mQueue.IsWaiting()) {
        const std::string trouble = mQueue.Commit();
        if (trouble != mTrouble) {
            trouble.empty()
                ? Parvane::LogInfo("readings are kept again")
                : Parvane::LogError("readings cannot be kept, and wait in memory: " + trouble);
        }
        mTrouble = trouble;
    }
    mPublisher.Pump();
}

/** What is due from time to time, whatever the watches say. */
void Hub::KeepHouse()
{
    constexpr seconds kOften{5};
    mQueue.Commit(); // drops what is too old
    Commit();
    mHouse = Parvane::LoopSource::After(kOften, [this] { KeepHouse(); });
}

void Hub::Follow()
{
    auto steps = mQueue.LoadSteps();
    mWard.Set(mSettings.mWatches, steps);
    std::map<std::string, bool> isLinked;
    mWard.ForEach(
        [&isLinked](const Watch &watch) { isLinked[watch.Name()] = watch.GetStatus().mIsLinked; });
    for (const auto &[name, watch] : mSettings.mWatches) {
        if (steps.erase(name) == 0) {
            mQueue.SaveSteps(name, {}); // so that it is known to have been told of
        }
        mPublisher.Announce(name, watch.mWishes, isLinked[name]);
    }
    for (const auto &[name, text] : steps) {
        mPublisher.Withdraw(name);
    }
    Commit();
}

void Hub::OnSignal()
{
    for (int signal = mSignals.Take(); signal != 0; signal = mSignals.Take()) {
        if (signal != SIGHUP) {
            End();
            return;
        }
        if (const auto settings = mReload()) {
            UseNew(*settings);
        }
    }
}

void Hub::UseNew(const Settings &settings)
{
    Settings others = settings;
    others.mWatches = mSettings.mWatches;
    if (others != mSettings) {
        Parvane::LogWarning("what is not about watches takes effect with the next start");
    }
    mSettings.mWatches = settings.mWatches;
    Follow();
    Parvane::LogInfo("serving " + std::to_string(mWard.Size()) +
                     " watches, by the new configuration");
}

void Hub::End()
{
    mSignalSource.Remove();
    mHouse.Remove();
    Parvane::LogInfo("ending");
    mManager.OnStopping();
    mWard.ForEach([this](const Watch &watch) { mQueue.SaveSteps(watch.Name(), watch.Steps()); });
    Commit();
    mPublisher.Stop();
    mQueue.Commit(); // what was acknowledged until now
    g_main_loop_quit(mLoop.get());
}

// --- what is told -------------------------------------------------------------------------------

Json Hub::Status() const
{
    std::size_t linked = 0;
    mWard.ForEach(
        [&linked](const Watch &watch) { linked += watch.GetStatus().mIsLinked ? 1U : 0U; });
    const auto &broker = mPublisher.BrokerStatus();
    const auto &queue = mQueue.GetCounts();
    return {{"version", PARVANE_HUB_VERSION},
            {"watches", mWard.Size()},
            {"linked", linked},
            {"broker",
             {{"connected", broker.mIsConnected},
              {"connections", broker.mConnections},
              {"problem", broker.mProblem}}},
            {"queue",
             {{"messages", queue.mMessages},
              {"bytes", queue.mBytes},
              {"dropped_for_size", queue.mDroppedForSize},
              {"dropped_for_age", queue.mDroppedForAge},
              {"problem", mTrouble}}},
            {"delivered", mPublisher.GetCounts().mDelivered},
            {"refused", mPublisher.GetCounts().mRefused},
            {"metrics_port", mMetrics ? Json(mMetrics->Port()) : Json()}};
}

/** So many as an answer holds, behind a name. */
Json Hub::WatchesFrom(const std::string &name) const
{
    constexpr std::size_t kMost = 50;
    Json watches = Json::array();
    mWard.ForEach([&](const Watch &watch) {
        if (watch.Name() > name && watches.size() < kMost) {
            watches.push_back(StatusOf(watch));
        }
    });
    return {{"watches", watches}};
}

std::string Hub::Metrics()
{
    MetricsText text;
    const Json status = Status();
    const auto &queue = mQueue.GetCounts();
    const auto number = [](const Json &value) { return value.get<double>(); };
    text.Single("parvane_hub_watches", "gauge", "Watches that are followed.",
                number(status["watches"]));
    text.Single("parvane_hub_watches_linked", "gauge", "Watches that are linked.",
                number(status["linked"]));
    text.Family("parvane_hub_readings", "counter", "Readings taken.");
    for (const Sensor sensor : kSensors) {
        text.Sample(static_cast<double>(mReadings.at(IndexOf(sensor))),
                    {{"sensor", LevelOf(sensor)}});
    }
    text.Single("parvane_hub_delivered", "counter", "Messages that the broker has taken.",
                number(status["delivered"]));
    text.Single("parvane_hub_refused", "counter", "Messages that the broker has refused.",
                number(status["refused"]));
    text.Single("parvane_hub_queue_messages", "gauge",
                "Messages that the broker does not have yet.",
                static_cast<double>(queue.mMessages));
    text.Single("parvane_hub_queue_bytes", "gauge", "Their size.",
                static_cast<double>(queue.mBytes));
    text.Single("parvane_hub_queue_oldest_seconds", "gauge", "The age of the oldest of them.",
                static_cast<double>(mQueue.OldestAge().count()));
    text.Family("parvane_hub_dropped", "counter", "Messages that were dropped from the queue.");
    text.Sample(static_cast<double>(queue.mDroppedForSize), {{"reason", "size"}});
    text.Sample(static_cast<double>(queue.mDroppedForAge), {{"reason", "age"}});
    text.Single("parvane_hub_broker_connected", "gauge", "Whether the broker is there.",
                status["broker"]["connected"].get<bool>() ? 1 : 0);
    text.Single("parvane_hub_broker_connections", "counter", "Connections to the broker.",
                number(status["broker"]["connections"]));
    AddWatches(text);
    text.Single("process_cpu_seconds", "counter", "Processor time.", ProcessorSeconds());
    text.Single("process_resident_memory_bytes", "gauge", "Memory.",
                static_cast<double>(ResidentBytes()));
    return text.End();
}

void Hub::AddWatches(MetricsText &text) const
{
    text.Family("parvane_hub_watch_linked", "gauge", "Whether the watch is linked.");
    mWard.ForEach([&text](const Watch &watch) {
        text.Sample(watch.GetStatus().mIsLinked ? 1 : 0, {{"watch", watch.Name()}});
    });
    text.Family("parvane_hub_watch_link_losses", "counter", "Links that were lost.");
    mWard.ForEach([&text](const Watch &watch) {
        text.Sample(static_cast<double>(watch.GetStatus().mLosses), {{"watch", watch.Name()}});
    });
    text.Family("parvane_hub_watch_unanswered", "counter", "Questions without an answer.");
    mWard.ForEach([&text](const Watch &watch) {
        text.Sample(static_cast<double>(watch.GetStatus().mUnanswered), {{"watch", watch.Name()}});
    });
    text.Family("parvane_hub_watch_nonsense", "counter", "Packets that are none.");
    mWard.ForEach([&text](const Watch &watch) {
        text.Sample(static_cast<double>(watch.GetStatus().mNonsense), {{"watch", watch.Name()}});
    });
    text.Family("parvane_hub_reading_age_seconds", "gauge", "The age of the latest reading.");
    const auto now = ParvaneHost::Now().mWall;
    mWard.ForEach([&](const Watch &watch) {
        for (const Sensor sensor : kSensors) {
            if (const auto latest = watch.Latest(sensor)) {
                text.Sample(static_cast<double>(latest->Age(now).count()) / 1000,
                            {{"watch", watch.Name()}, {"sensor", LevelOf(sensor)}});
            }
        }
    });
}

} // namespace ParvaneHub
