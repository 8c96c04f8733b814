#include "ControlCommands.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "ConfigSchema.h"
#include "ControlServer.h"
#include "LogWriter.h"
#include "ManualSource.h"
#include "RuntimeLog.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/** What a request has asked of the service's life. */
class NotedEvents : public LifecycleEvents
{
public:
    void OnLowMemory() override { mNotes.emplace_back("low memory"); }
    void OnLowBattery() override { mNotes.emplace_back("low battery"); }
    void OnQuit() override { mNotes.emplace_back("quit"); }

    std::vector<std::string> mNotes;
};

} // namespace

/** The requests on the parts of a runtime whose pedometer alone is not manual. */
class ControlCommandsTest : public testing::Test
{
protected:
    explicit ControlCommandsTest(Settings settings = MakeSettings())
        : mSettings(std::move(settings)),
          mPreferences(mDirectory.Path(), mClock),
          mKeys(mDirectory.Path(), mDirectory.Path()),
          mContext(Sources(), mClock),
          mPower(mClock),
          mLink(mDirectory.Path(), mKeys, mClock),
          mCommands(ControlledParts{mClock, mPreferences, mKeys, mContext, mPower, mLink, mEvents,
                                    mSettings})
    {}

    static Settings MakeSettings()
    {
        Settings settings;
        settings.mStateDirectory = "/state";
        settings.mRuntimeDirectory = "/run";
        settings.mSensors = {SourceKind::Manual, SourceKind::None, SourceKind::Manual,
                             SourceKind::Manual};
        settings.mFile = "/etc/p.conf";
        settings.mHasFile = true;
        settings.mOrigins[{"sensors", "heart_rate"}] = "line 2";
        settings.mOrigins[{"replay", "speed"}] = "PARVANE_SPEED";
        settings.mReplay.mSpeed = 2.5;
        return settings;
    }

    /** As the settings make them: the manual source is known by itself, too. */
    SensorSources Sources() const { return {mSettings, mClock, nullptr}; }

    static void Note(int /*error*/, int item, context_data *data, void *userData,
                     int /*requestId*/) noexcept
    {
        const char *key = item == 1   ? CONTEXT_MOTION_ACTION
                          : item == 7 ? CONTEXT_HRM_HEART_RATE
                                      : CONTEXT_ACTIVITY_STATUS;
        int value = -1;
        context_context_data_get_int(data, key, &value);
        std::free(data);
        static_cast<ControlCommandsTest *>(userData)->mReadings.push_back(
            std::to_string(item) + ": " + std::to_string(value));
    }

    int Subscribe(int item)
    {
        int requestId = 0;
        EXPECT_EQ(mContext.Subscribe(item, nullptr, Note, this, requestId), 0);
        RunWhileBusy();
        return requestId;
    }

    json Ask(const std::string &message)
    {
        ControlAnswer answer = mCommands.Answer(message, 4711);
        if (answer.mAfterwards) {
            EXPECT_THAT(mEvents.mNotes, IsEmpty());
            answer.mAfterwards();
        }
        return json::parse(answer.mReply);
    }

    json Status() { return Ask(R"({"request":"status"})").at("status"); }

    /** "code: message" of a request that has to be refused. */
    std::string Refused(const std::string &message)
    {
        const json reply = Ask(message);
        EXPECT_EQ(reply.at("version"), 1);
        EXPECT_EQ(reply.at("ok"), false) << message;
        return reply.at("error").at("code").get<std::string>() + ": " +
               reply.at("error").at("message").get<std::string>();
    }

    void ExpectDone(const std::string &message)
    {
        EXPECT_EQ(Ask(message), json({{"version", 1}, {"ok", true}})) << message;
    }

    /** The filter of the log is the process's: a test that sets it puts it back. */
    ~ControlCommandsTest() override { StandardErrorLog().SetFilter({}); }

    TemporaryDirectory mDirectory;
    const Settings mSettings;
    ManualClock mClock;
    NotedEvents mEvents;
    PreferenceStore mPreferences;
    KeyValueStore mKeys;
    ContextManager mContext;
    PowerLocks mPower;
    LinkSession mLink;
    ControlCommands mCommands;
    std::vector<std::string> mReadings;
    StderrCapture mLog;
};

TEST_F(ControlCommandsTest, StatusOfAServiceThatDoesNothing)
{
    mClock.mWallMs += 5000;
    mClock.mMonotonicUs += 5000000;
    const json status = Status();

    EXPECT_EQ(status.at("time"), "2026-01-31T12:35:01.789Z");
    EXPECT_EQ(status.at("service").at("since"), "2026-01-31T12:34:56.789Z");
    EXPECT_EQ(status.at("service").at("for_ms"), 5000);
    EXPECT_EQ(status.at("service").at("version"), PARVANE_VERSION);
    EXPECT_EQ(status.at("directories"), json({{"state", "/state"}, {"runtime", "/run"}}));
    EXPECT_EQ(status.at("host"), nullptr);
    EXPECT_EQ(status.at("link").at("key"), 1);
    EXPECT_EQ(status.at("link").at("state"), "up");
    EXPECT_EQ(status.at("link").at("host_state"), "none");
    EXPECT_EQ(status.at("power_locks"), json::array());
    EXPECT_EQ(status.at("preferences"), json::object());
    ASSERT_EQ(status.at("items").size(), 4U);
    EXPECT_EQ(status.at("items").at(1), json({{"item", "pedometer"},
                                              {"number", 2},
                                              {"source", "none"},
                                              {"problem", "no source configured"},
                                              {"subscription", nullptr},
                                              {"last_reading", nullptr},
                                              {"kept_by", json::array()},
                                              {"delivered", 0}}));
}

TEST_F(ControlCommandsTest, StatusTellsWhatKeepsAnItemOnAndWhatItHasReported)
{
    const int requestId = Subscribe(7);
    mClock.mWallMs += 2000;
    mClock.mMonotonicUs += 2000000;
    ExpectDone(R"({"request":"set","item":"heart_rate","value":72})");
    mClock.mWallMs += 400;
    mClock.mMonotonicUs += 400000;

    EXPECT_EQ(
        Status().at("items").at(2),
        json(
            {{"item", "heart_rate"},
             {"number", 7},
             {"source", "manual"},
             {"problem", nullptr},
             {"subscription",
              {{"request_id", requestId}, {"since", "2026-01-31T12:34:56.789Z"}, {"for_ms", 2400}}},
             {"last_reading",
              {{"time", "2026-01-31T12:34:58.789Z"},
               {"age_ms", 400},
               {"values", {{"hrm/heart_rate", 72}}}}},
             {"kept_by", json::array()},
             {"delivered", 1}}));
}

TEST_F(ControlCommandsTest, AClockThatIsSetChangesNoLength)
{
    Subscribe(7);
    ExpectDone(R"({"request":"set","item":"heart_rate","value":72})");
    mPower.Lock(2, 16000);
    mClock.mMonotonicUs += 3000000;
    for (const std::int64_t ms : {std::int64_t{-3600000}, std::int64_t{1'000'000'000'000}}) {
        mClock.mWallMs += ms;
        const json status = Status();
        EXPECT_EQ(status.at("service").at("for_ms"), 3000);
        EXPECT_EQ(status.at("items").at(2).at("subscription").at("for_ms"), 3000);
        EXPECT_EQ(status.at("items").at(2).at("last_reading").at("age_ms"), 3000);
        EXPECT_EQ(status.at("power_locks").at(0).at("for_ms"), 3000);
        EXPECT_EQ(status.at("power_locks").at(0).at("ends_in_ms"), 13000);
    }
}

TEST_F(ControlCommandsTest, StatusShowsAllPreferencesByTheirTypes)
{
    mPreferences.Set("a", true);
    mPreferences.Set("b", -5);
    mPreferences.Set("c", std::string("text \xFF"));

    EXPECT_EQ(Status().at("preferences"),
              json({{"a", true}, {"b", -5}, {"c", "text \xEF\xBF\xBD"}}));
}

TEST_F(ControlCommandsTest, PreferencesThatDoNotFitTheMessageAreLeftOutAndCounted)
{
    mPreferences.Set("a", std::string(70000, 'x'));
    mPreferences.Set("b", std::string(30000, '\n')); // two bytes each in JSON
    mPreferences.Set("c", std::string(30000, '\n'));
    mPreferences.Set("d", 1);
    const ControlAnswer answer = mCommands.Answer(R"({"request":"status"})", 1);
    const json status = json::parse(answer.mReply).at("status");

    EXPECT_LE(answer.mReply.size(), ControlServer::kMaxReplyBytes);
    EXPECT_EQ(status.at("preferences").size(), 2U);
    EXPECT_EQ(status.at("preferences").at("d"), 1);
    EXPECT_EQ(status.at("preferences_left_out"), 2);
}

TEST_F(ControlCommandsTest, PreferencesThatCannotBeReadAreNull)
{
    const TemporaryDirectory other;
    ASSERT_TRUE(std::system(("mkdir " + (other / "preferences.db")).c_str()) == 0);
    PreferenceStore unreadable(other.Path(), mClock);
    ControlCommands commands(
        ControlledParts{mClock, unreadable, mKeys, mContext, mPower, mLink, mEvents, mSettings});
    const json reply = json::parse(commands.Answer(R"({"request":"status"})", 1).mReply);
    EXPECT_EQ(reply.at("status").at("preferences"), nullptr);
}

TEST_F(ControlCommandsTest, TheConfigurationInForceIsToldWithWhereEachValueIsFrom)
{
    const json config = Ask(R"({"request":"config"})").at("config");
    EXPECT_EQ(config.at("service"), json({{"version", PARVANE_VERSION}}));
    EXPECT_EQ(config.at("file"), json({{"path", "/etc/p.conf"}, {"read", true}}));
    EXPECT_EQ(config.at("link_socket"), "/run/link.sock");
    EXPECT_EQ(config.at("control_socket"), "/run/control.sock");
    EXPECT_EQ(config.at("values").size(), ConfigSchema().size());
    const auto has = [&config](const char *section, const char *key, const json &value,
                               const char *from) {
        const json entry = {{"section", section}, {"key", key}, {"value", value}, {"from", from}};
        return std::count(config.at("values").begin(), config.at("values").end(), entry) == 1;
    };
    EXPECT_TRUE(has("sensors", "heart_rate", "manual", "line 2"));
    EXPECT_TRUE(has("sensors", "pedometer", "none", "default"));
    EXPECT_TRUE(has("replay", "speed", 2.5, "PARVANE_SPEED"));
    EXPECT_TRUE(has("replay", "files", json::array(), "default"));
    EXPECT_TRUE(has("iio", "period_ms", 1000, "default"));
    EXPECT_TRUE(has("control", "enabled", true, "default"));
    EXPECT_TRUE(has("log", "level", "auto", "default"));
    EXPECT_TRUE(has("directories", "state", "/state", "default"));
}

TEST_F(ControlCommandsTest, ALongConfigurationFitsAReply)
{
    Settings settings;
    settings.mReplay.mFiles = {std::string(100000, '\1')};
    for (std::string *text : {&settings.mIio.mRoot, &settings.mIio.mDevice, &settings.mPower.mRoot,
                              &settings.mLog.mTags, &settings.mMemory.mPressureFile,
                              &settings.mBattery.mRoot, &settings.mStateDirectory}) {
        *text = "/" + std::string(490, '\1');
    }
    settings.mFile = std::string(4095, '\1');
    const std::string reply = ConfigMessage(settings);
    EXPECT_LE(reply.size(), ControlServer::kMaxReplyBytes);
    const json values = json::parse(reply).at("config").at("values");
    EXPECT_EQ(values.at(4).at("value"), nullptr);
    EXPECT_EQ(values.at(7).at("value"), settings.mIio.mRoot);
}

TEST_F(ControlCommandsTest, TheLogIsToldAndSteered)
{
    const auto log = [this](const std::string &members) {
        return Ask(R"({"request":"log")" + members + "}").at("log");
    };
    EXPECT_EQ(log(""), json({{"level", "auto"}, {"tags", ""}}));
    EXPECT_EQ(log(R"(,"level":"warning")"), json({{"level", "warning"}, {"tags", ""}}));
    LogInfo("lost");
    LogWarning("kept");
    EXPECT_EQ(log(R"(,"tags":"Parvane,other")"),
              json({{"level", "warning"}, {"tags", "Parvane,other"}}));
    LogWarning("lost");
    LogError("kept");
    EXPECT_EQ(log(R"(,"level":"verbose","tags":"")"), json({{"level", "verbose"}, {"tags", ""}}));
    LogInfo("kept");

    EXPECT_EQ(mLog.Take(), "I platform: control: process 4711 sets the log to "
                           "{\"level\":\"warning\",\"tags\":\"\"}\n"
                           "W platform: kept\n"
                           "E platform: kept\n"
                           "I platform: kept\n");
}

TEST_F(ControlCommandsTest, ALogThatThereIsNotIsRefused)
{
    EXPECT_EQ(Refused(R"({"request":"log","level":"loud"})"),
              "bad-value: \"level\" is \"loud\"; allowed: one of auto, verbose, debug, info, "
              "warning, error, fatal");
    EXPECT_EQ(Refused(R"({"request":"log","level":3})"),
              "bad-value: \"level\" is 3; allowed: one of auto, verbose, debug, info, warning, "
              "error, fatal");
    EXPECT_EQ(Refused(R"({"request":"log","tags":["a"]})"),
              "bad-value: \"tags\" is an array; allowed: tags with , between them");
    EXPECT_EQ(Refused(R"({"request":"log","to":"file"})"),
              "bad-value: \"log\" has no member \"to\"; allowed: version, request, level, tags");
    EXPECT_EQ(Refused(R"({"request":"config","x":1})"),
              "bad-value: \"config\" has no member \"x\"; allowed: version, request");
}

TEST_F(ControlCommandsTest, StatusCountsPowerLocks)
{
    mPower.Lock(2, 16000);
    EXPECT_EQ(Status().at("power_locks").size(), 1U);
}

/** Whose heart rate plays one of three recordings that lie in a folder. */
class ReplayCommandsTest : public ControlCommandsTest
{
protected:
    ReplayCommandsTest() : ControlCommandsTest(MakeReplay()) {}

    static Settings MakeReplay()
    {
        constexpr char kNames[] = "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,"
                                  "calories_kcal,speed,activity,gesture\n";
        WriteFile(Recordings() / "a.csv", std::string(kNames) + "0,60,,,,,,,,\n9000,61,,,,,,,,\n");
        WriteFile(Recordings() / "b.csv", std::string(kNames) + "0,90,,,,,,,,\n");
        WriteFile(Recordings() / "broken.csv", "t_ms\n");
        WriteFile(Recordings() / "other.txt", std::string(kNames) + "0,90,,,,,,,,\n");
        Settings settings = MakeSettings();
        settings.mSensors.mHeartRate = SourceKind::Replay;
        settings.mReplay.mFiles = {Recordings() / "a.csv"};
        return settings;
    }

    static const TemporaryDirectory &Recordings()
    {
        static const TemporaryDirectory directory;
        return directory;
    }

    json Replay(const std::string &members = "")
    {
        return Ask(R"({"request":"replay")" + members + "}").at("replay");
    }
};

TEST_F(ReplayCommandsTest, TheReplayIsToldAndSteered)
{
    mClock.mMonotonicUs = 1000000;
    json expected = {{"files", {Recordings() / "a.csv"}},
                     {"length_ms", 18000},
                     {"position_ms", 2500},
                     {"speed", 2.5},
                     {"paused", false},
                     {"loop", true},
                     {"changes", 0}};
    EXPECT_EQ(Replay(), expected);
    EXPECT_EQ(Status().at("replay"), expected);
    mCommands.TakeChanges();
    mClock.mMonotonicUs += 1000000;
    EXPECT_THAT(mCommands.TakeChanges(), IsEmpty()); // that time goes by is no event

    expected.update({{"position_ms", 5000}, {"paused", true}, {"changes", 1}});
    EXPECT_EQ(Replay(R"(,"action":"pause")"), expected);
    mClock.mMonotonicUs += 1000000;
    const std::vector<std::string> changes = mCommands.TakeChanges();
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(json::parse(changes[0]).at("event"), "replay");
    EXPECT_EQ(json::parse(changes[0]).at("replay"), expected);

    EXPECT_EQ(Replay(R"(,"action":"seek","position_ms":12500.5)").at("position_ms"), 12500);
    EXPECT_THAT(mCommands.TakeChanges(), testing::SizeIs(1));
    EXPECT_EQ(Replay(R"(,"action":"speed","speed":0.1)").at("speed"), 0.1);
    EXPECT_EQ(Replay(R"(,"action":"resume")").at("paused"), false);
    EXPECT_THAT(mLog.Take(), HasSubstr("I platform: control: process 4711 sets the replay to "
                                       "{\"changes\":1,\"files\":[\""));
}

TEST_F(ReplayCommandsTest, OnlyARecordingThatIsKnownIsOpened)
{
    const std::string b = Recordings() / "b.csv";
    const json known = Ask(R"({"request":"replay"})").at("recordings");
    for (const char *name : {"a.csv", "b.csv", "broken.csv"}) {
        EXPECT_THAT(known, testing::Contains(json(Recordings() / name)));
    }
    EXPECT_THAT(known, testing::Not(testing::Contains(json(Recordings() / "other.txt"))));
    const auto open = [](const std::string &recording) {
        return R"({"request":"replay","action":"open","recording":)" + recording + "}";
    };
    const std::string allowed =
        "; allowed: one of the recordings that \"replay\" without an action tells";
    EXPECT_EQ(Refused(open("\"/etc/passwd\"")),
              "bad-value: \"recording\" is \"/etc/passwd\"" + allowed);
    EXPECT_EQ(Refused(open("\"other.txt\"")),
              "bad-value: \"recording\" is \"other.txt\"" + allowed);
    EXPECT_EQ(Refused(open("7")), "bad-value: \"recording\" is 7" + allowed);
    EXPECT_THAT(Refused(open("\"broken.csv\"")),
                HasSubstr("broken.csv: line 1: the column heart_rate is missing"));
    EXPECT_EQ(Replay().at("files"), json({Recordings() / "a.csv"}));
    EXPECT_EQ(Replay().at("changes"), 0);

    EXPECT_EQ(Ask(open("\"b.csv\"")).at("replay").at("files"), json({b}));
    EXPECT_EQ(Replay().at("length_ms"), 1000);
    EXPECT_EQ(Ask(open(json(Recordings() / "a.csv").dump())).at("replay").at("changes"), 2);
}

TEST_F(ReplayCommandsTest, WhatIsWrongWithASteeringIsSaid)
{
    const auto refused = [this](const std::string &members) {
        return Refused(R"({"request":"replay",)" + members + "}");
    };
    EXPECT_EQ(refused(R"("action":"stop")"), "bad-value: \"action\" is \"stop\"; allowed: pause, "
                                             "resume, seek, speed, open");
    EXPECT_EQ(refused(R"("action":"pause","speed":1)"),
              "bad-value: \"replay\" has no member \"speed\"; allowed: version, request, action");
    EXPECT_EQ(refused(R"("action":"seek")"),
              "bad-value: \"position_ms\" is missing; allowed: a number from 0 to 18000");
    for (const char *wrong : {"-1", "18000.5", "1e999", "\"1\""}) {
        EXPECT_THAT(refused(R"("action":"seek","position_ms":)" + std::string(wrong)),
                    testing::StartsWith("bad-"));
    }
    EXPECT_EQ(refused(R"("action":"speed","speed":0.09)"),
              "bad-value: \"speed\" is 0.09; allowed: a number from 0.1 to 1000");
    EXPECT_EQ(refused(R"("speed":1)"),
              "bad-value: \"replay\" has no member \"speed\"; allowed: version, request, action");
    EXPECT_EQ(Replay().at("changes"), 0);
}

TEST_F(ControlCommandsTest, WithoutRecordingsThereIsNoReplay)
{
    EXPECT_EQ(Status().at("replay"), nullptr);
    EXPECT_EQ(Refused(R"({"request":"replay"})"),
              "not-replay: no item has the source replay; it plays the recordings of files=... in "
              "section [replay] of platform.conf");
}

TEST_F(ControlCommandsTest, HeartRateCanBeSetAndTakenOffTheWrist)
{
    Subscribe(7);
    ExpectDone(R"({"version":1,"request":"set","item":"heart_rate","value":0})");
    ExpectDone(R"({"request":"set","item":"heart_rate","value":65535})");
    ExpectDone(R"({"request":"set","item":"heart_rate","value":"off-wrist"})");
    EXPECT_THAT(mReadings, ElementsAre("7: 0", "7: 65535", "7: -3"));
}

TEST_F(ControlCommandsTest, ActivitiesAndGesturesCanBeSet)
{
    Subscribe(23);
    Subscribe(1);
    for (const char *activity : {"other", "still", "walking", "running"}) {
        ExpectDone(std::string(R"({"request":"set","item":"activity","value":")") + activity +
                   "\"}");
    }
    EXPECT_EQ(Ask(R"({"request":"set","item":"gesture","value":-2147483648})"),
              json({{"version", 1}, {"ok", true}, {"heard", 1}}));
    EXPECT_THAT(mReadings, ElementsAre("23: 0", "23: 1", "23: 2", "23: 3", "1: -2147483648"));
}

TEST_F(ControlCommandsTest, AnItemThatIsNotManualNamesItsSourceAndItsKey)
{
    EXPECT_EQ(Refused(R"({"request":"set","item":"steps","add":10})"),
              "not-manual: pedometer has the source none; only the source manual can be set "
              "(pedometer=manual in section [sensors] of platform.conf)");
}

TEST_F(ControlCommandsTest, WhatEndsTheServiceIsDoneAfterTheReply)
{
    ExpectDone(R"({"request":"memory","state":"low"})");
    EXPECT_THAT(std::exchange(mEvents.mNotes, {}), ElementsAre("low memory"));
    ExpectDone(R"({"request":"battery","state":"low"})");
    EXPECT_THAT(std::exchange(mEvents.mNotes, {}), ElementsAre("low battery"));
    ExpectDone(R"({"request":"quit"})");
    EXPECT_THAT(mEvents.mNotes, ElementsAre("quit"));
}

TEST_F(ControlCommandsTest, LinkGoesDownAndUp)
{
    ExpectDone(R"({"request":"link","state":"down"})");
    EXPECT_EQ(Status().at("link").at("state"), "down");
    EXPECT_EQ(Status().at("link").at("key"), 0);
    EXPECT_EQ(Status().at("link").at("set_by"), 4711);

    ExpectDone(R"({"request":"link","state":"up"})");
    RunWhileBusy();
    EXPECT_EQ(Status().at("link").at("state"), "up");
    EXPECT_EQ(Status().at("link").at("key"), 1);
}

TEST_F(ControlCommandsTest, RecordStartsARecording)
{
    EXPECT_TRUE(mCommands.Answer(R"({"request":"record"})", 1).mStartsRecording);
    EXPECT_FALSE(mCommands.Answer(R"({"request":"record","a":1})", 1).mStartsRecording);
}

TEST_F(ControlCommandsTest, ARecordingTurnsItemsOnForAsLongAsItIsThere)
{
    Subscribe(1);
    {
        const ControlAnswer answer =
            mCommands.Answer(R"({"request":"record","on":["activity","heart_rate"]})", 4711);
        EXPECT_TRUE(answer.mStartsRecording);
        EXPECT_EQ(json::parse(answer.mReply).at("on"), json({"gesture", "heart_rate", "activity"}));
        EXPECT_EQ(Status().at("items").at(2).at("kept_by").at(0),
                  json({{"pid", 4711}, {"since", "2026-01-31T12:34:56.789Z"}, {"for_ms", 0}}));
        ExpectDone(R"({"request":"set","item":"heart_rate","value":72})");
        EXPECT_EQ(Status().at("items").at(2).at("last_reading").at("values"),
                  json({{"hrm/heart_rate", 72}}));
        EXPECT_EQ(Status().at("items").at(2).at("delivered"), 0);
    }
    EXPECT_EQ(Status().at("items").at(2).at("kept_by"), json::array());
    ExpectDone(R"({"request":"set","item":"heart_rate","value":73})");
    EXPECT_EQ(Status().at("items").at(2).at("last_reading").at("values"),
              json({{"hrm/heart_rate", 72}}));
}

TEST_F(ControlCommandsTest, AGestureThatNobodyHearsSaysSo)
{
    const char *const gesture = R"({"request":"set","item":"gesture","value":3})";
    EXPECT_EQ(Ask(gesture).at("heard"), 0);
    const ControlAnswer recording =
        mCommands.Answer(R"({"request":"record","on":["gesture"]})", 4711);
    EXPECT_EQ(Ask(gesture).at("heard"), 1);
    Subscribe(1);
    EXPECT_EQ(Ask(gesture).at("heard"), 2);
}

TEST_F(ControlCommandsTest, ObserveAnswersWithTheStatus)
{
    const ControlAnswer answer = mCommands.Answer(R"({"request":"observe"})", 1);
    EXPECT_TRUE(answer.mStartsObserving);
    EXPECT_EQ(json::parse(answer.mReply).at("status"), Status());
    EXPECT_FALSE(mCommands.Answer(R"({"request":"status"})", 1).mStartsObserving);
}

TEST_F(ControlCommandsTest, CaptureIsDoneAndBeginsWithTheNextPacket)
{
    const ControlAnswer answer = mCommands.Answer(R"({"request":"capture"})", 1);
    EXPECT_TRUE(answer.mStartsCapture);
    EXPECT_EQ(answer.mReply, R"({"ok":true,"version":1})");
    EXPECT_FALSE(mCommands.Answer(R"({"request":"status"})", 1).mStartsCapture);
}

TEST_F(ControlCommandsTest, ChangesAreTheStatusOfWhatHasChanged)
{
    mCommands.TakeChanges();
    mClock.mWallMs += 1000;
    mClock.mMonotonicUs += 1000000;
    EXPECT_THAT(mCommands.TakeChanges(), IsEmpty()) << "ages alone are no change";

    Subscribe(7);
    EXPECT_THAT(mCommands.TakeChanges(), testing::SizeIs(1));
    ExpectDone(R"({"request":"set","item":"heart_rate","value":72})");
    EXPECT_THAT(mCommands.TakeChanges(), IsEmpty()) << "readings are told by themselves";
    mContext.Unsubscribe(7);
    mPower.Lock(2, 16000);
    mPreferences.Set("a", true);
    Ask(R"({"request":"link","state":"down"})");

    std::vector<json> events;
    for (const std::string &message : mCommands.TakeChanges()) {
        events.push_back(json::parse(message));
        EXPECT_EQ(events.back().at("time"), "2026-01-31T12:34:57.789Z");
    }
    ASSERT_EQ(events.size(), 4U);
    const json status = Status();
    EXPECT_EQ(events.at(0).at("event"), "item");
    EXPECT_EQ(events.at(0).at("item"), status.at("items").at(2));
    EXPECT_EQ(events.at(0).at("item").at("subscription"), nullptr);
    EXPECT_EQ(events.at(1).at("event"), "link");
    EXPECT_EQ(events.at(1).at("link").at("state"), "down");
    EXPECT_EQ(events.at(2).at("event"), "power_locks");
    EXPECT_EQ(events.at(2).at("power_locks"), status.at("power_locks"));
    EXPECT_EQ(events.at(3).at("event"), "preferences");
    EXPECT_EQ(events.at(3).at("preferences"), json({{"a", true}}));
    mClock.mMonotonicUs += 1000;
    EXPECT_THAT(mCommands.TakeChanges(), IsEmpty());
}

TEST_F(ControlCommandsTest, WhatIsWrongIsNamedWithWhatIsAllowed)
{
    const std::string names =
        "allowed: status, config, log, set, link, memory, battery, quit, record, observe, "
        "capture, replay";
    const std::string rate =
        "; allowed: a whole number of beats per minute from 0 to 65535, \"off-wrist\"";
    const std::string on =
        "; allowed: an array of gesture, pedometer, heart_rate, activity, each once";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"hello", "bad-message: the message is no JSON from byte 1 on; send one object, in UTF-8"},
        {"{} {}", "bad-message: the message is no JSON from byte 4 on; send one object, in UTF-8"},
        {"{\"request\":\"st\xFF\"}",
         "bad-message: the message is no JSON from byte 15 on; send one object, in UTF-8"},
        {R"({"request":1e999})",
         "bad-message: the message has a number that is too large; send one JSON object"},
        {"[1]", "bad-message: the message is no JSON object but array"},
        {"null", "bad-message: the message is no JSON object but null"},
        {R"({"version":2,"request":"status"})",
         "unsupported-version: \"version\" is 2; allowed: 1"},
        {R"({"version":"1","request":"status"})",
         "unsupported-version: \"version\" is \"1\"; allowed: 1"},
        {"{}", "unknown-request: \"request\" is missing; " + names},
        {R"({"request":"stat"})", "unknown-request: \"request\" is \"stat\"; " + names},
        {R"({"request":["status"]})", "unknown-request: \"request\" is an array; " + names},
        {R"({"request":"status","all":1})",
         "bad-value: \"status\" has no member \"all\"; allowed: version, request"},
        {R"({"request":"set"})",
         "bad-value: \"item\" is missing; allowed: heart_rate, steps, activity, gesture"},
        {R"({"request":"set","item":"hr"})",
         "bad-value: \"item\" is \"hr\"; allowed: heart_rate, steps, activity, gesture"},
        {R"({"request":"set","item":"heart_rate"})", "bad-value: \"value\" is missing" + rate},
        {R"({"request":"set","item":"heart_rate","value":-1})",
         "bad-value: \"value\" is -1" + rate},
        {R"({"request":"set","item":"heart_rate","value":65536})",
         "bad-value: \"value\" is 65536" + rate},
        {R"({"request":"set","item":"heart_rate","value":72.5})",
         "bad-value: \"value\" is 72.5" + rate},
        {R"({"request":"set","item":"heart_rate","value":null})",
         "bad-value: \"value\" is null" + rate},
        {R"({"request":"set","item":"steps","add":18446744073709551615})",
         "bad-value: \"add\" is 18446744073709551615; allowed: a whole number from 0 to "
         "2147483647"},
        {R"({"request":"set","item":"steps","add":-9223372036854775808})",
         "bad-value: \"add\" is -9223372036854775808; allowed: a whole number from 0 to "
         "2147483647"},
        {R"({"request":"set","item":"steps","value":1})",
         "bad-value: \"set\" has no member \"value\"; allowed: version, request, item, add"},
        {R"({"request":"set","item":"activity","value":"flying"})",
         "bad-value: \"value\" is \"flying\"; allowed: other, still, walking, running"},
        {R"({"request":"link","state":"sideways"})",
         "bad-value: \"state\" is \"sideways\"; allowed: up, down"},
        {R"({"request":"memory","state":"high"})",
         "bad-value: \"state\" is \"high\"; allowed: low"},
        {R"({"request":"observe","on":[]})",
         "bad-value: \"observe\" has no member \"on\"; allowed: version, request"},
        {R"({"request":"record","on":"heart_rate"})", "bad-value: \"on\" is \"heart_rate\"" + on},
        {R"({"request":"record","on":["hr"]})", "bad-value: \"on\" is an array" + on},
        {R"({"request":"record","on":{"a":"gesture"}})", "bad-value: \"on\" is an object" + on},
        {R"({"request":"record","on":["gesture","gesture"]})",
         "bad-value: \"on\" is an array" + on},
        {R"({"request":"record","on":["heart_rate","pedometer"]})",
         "failed: pedometer cannot be turned on: no source configured"},
        {R"({"request":"quit","state":"low"})",
         "bad-value: \"quit\" has no member \"state\"; allowed: version, request"}};
    for (const auto &[message, expected] : cases) {
        EXPECT_EQ(Refused(message), expected) << message;
    }
    EXPECT_THAT(mReadings, IsEmpty());
    EXPECT_THAT(mEvents.mNotes, IsEmpty());
    EXPECT_EQ(Status().at("items").at(2).at("kept_by"), json::array());
}

TEST_F(ControlCommandsTest, AZeroByteIsNotTheEndOfAMessage)
{
    using namespace std::string_literals;
    for (const std::string &message :
         {"{\"request\":\"quit\"}\0"s, "{\"request\":\"quit\"}\0, or rather not"s}) {
        EXPECT_EQ(Refused(message),
                  "bad-message: the message is no JSON from byte 19 on; send one object, in UTF-8");
    }
    EXPECT_THAT(mEvents.mNotes, IsEmpty());
}

TEST_F(ControlCommandsTest, AForeignValueIsQuotedShort)
{
    const std::string reply = Refused("{\"request\":\"" + std::string(5000, 'x') + "\"}");
    EXPECT_LT(reply.size(), 200U);
    EXPECT_THAT(reply, HasSubstr("xxx...; allowed: status"));
}

TEST_F(ControlCommandsTest, DeepNestingIsRefusedLikeAnythingElse)
{
    const std::size_t depth = ControlServer::kMaxRequestBytes / 2;
    EXPECT_THAT(Refused(std::string(depth, '[') + std::string(depth, ']')),
                HasSubstr("no JSON object but array"));
    EXPECT_THAT(Refused(std::string(2 * depth, '[')), HasSubstr("no JSON"));
    EXPECT_THAT(Refused("{\"request\":" + std::string(1000, '[') + std::string(1000, ']') + "}"),
                HasSubstr("\"request\" is an array"));
}

TEST_F(ControlCommandsTest, WhateverComesHasOneReplyInJson)
{
    std::mt19937 random(42);
    const std::string valid = R"({"version":1,"request":"set","item":"gesture","value":3})";
    for (int round = 0; round < 3000; ++round) {
        std::string message = valid;
        if (round % 2 == 0) {
            message.assign(random() % 300, '\0');
        }
        // Some bytes of a good message, or all bytes of none.
        const std::size_t changes = round % 2 == 0 ? message.size() : 1 + random() % 4;
        for (std::size_t i = 0; i < changes; ++i) {
            const std::size_t place = round % 2 == 0 ? i : random() % message.size();
            message[place] = static_cast<char>(random() % 256);
        }
        const ControlAnswer answer = mCommands.Answer(message, 1);
        ASSERT_TRUE(json::parse(answer.mReply).at("ok").is_boolean()) << message;
    }
}

} // namespace ParvanePlatform
