#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/bluetooth.h>
#include <platform/context_manager.h>
#include <platform/power.h>
#include <platform/preference.h>
#include <platform/service_app.h>
#include <platform/tal_client.h>
#include <platform/vconf.h>

#include "LoopSource.h"
#include "Runtime.h"
#include "ScopedEnvironment.h"
#include "TestSupport.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kRows[] = "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,"
                         "calories_kcal,speed,activity,gesture\n"
                         "0,60,5,,,,,,,\n1000,61,6,,,,,,,\n";

bool IsBlocked(int signal)
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

std::ptrdiff_t CountThreads()
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
}

sighandler_t HandlerOf(int signal)
{
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler;
}

} // namespace

/** Runs service_app_main() with a service that is made of functions. */
class ServiceAppTest : public testing::Test
{
protected:
    ServiceAppTest()
    {
        mEnvironment.Set("STATE_DIRECTORY", State());
        mEnvironment.Set("RUNTIME_DIRECTORY", RunTime());
        for (const char *name :
             {"PARVANE_TRACE", "PARVANE_SPEED", "PARVANE_LOOP", "PARVANE_BT_ADDRESS"}) {
            mEnvironment.Set(name, "");
        }
        WriteFile(mDirectory / "platform.conf", "");
        mEnvironment.Set("PARVANE_PLATFORM_CONF", mDirectory / "platform.conf");
        mEnvironment.Set("NOTIFY_SOCKET", std::nullopt);
    }

    std::string State() const { return mDirectory / "state"; }
    std::string RunTime() const { return mDirectory / "run"; }

    static bool OnCreate(void *userData)
    {
        return Self(userData).Note("create", Self(userData).mCreate);
    }
    static void OnTerminate(void *userData)
    {
        Self(userData).Note("terminate", Self(userData).mTerminate);
    }
    static void OnControl(app_control_h request, void *userData)
    {
        EXPECT_NE(request, nullptr);
        Self(userData).Note("control", Self(userData).mControl);
    }

    static ServiceAppTest &Self(void *userData) { return *static_cast<ServiceAppTest *>(userData); }

    bool Note(const std::string &event, const std::function<bool()> &function)
    {
        mEvents.push_back(event);
        return !function || function();
    }

    int Run()
    {
        service_app_callbacks callbacks = {OnCreate, OnTerminate, OnControl, nullptr, nullptr};
        char name[] = "test";
        char *arguments[] = {name, nullptr};
        return service_app_main(1, arguments, &callbacks, this);
    }

    /** Runs a service whose work is `work`, called from the main loop once. */
    void RunWith(const std::function<void()> &work)
    {
        mControl = [&work] {
            work();
            service_app_exit();
            return true;
        };
        EXPECT_EQ(Run(), 0);
        EXPECT_THAT(mEvents, ElementsAre("create", "control", "terminate"));
    }

    TemporaryDirectory mDirectory;
    ScopedEnvironment mEnvironment;
    std::function<bool()> mCreate;
    std::function<bool()> mTerminate;
    std::function<bool()> mControl;
    std::vector<std::string> mEvents;
};

using ServiceAppDeathTest = ServiceAppTest;

TEST_F(ServiceAppTest, LifeGoesFromCreateOverALaunchRequestToTerminate)
{
    RunWith([] {});
}

TEST_F(ServiceAppTest, BadArgumentsAreRefused)
{
    char name[] = "test";
    char *arguments[] = {name, nullptr};
    service_app_callbacks callbacks = {OnCreate, OnTerminate, OnControl, nullptr, nullptr};
    EXPECT_EQ(service_app_main(1, arguments, nullptr, this), -22);
    EXPECT_EQ(service_app_main(0, arguments, &callbacks, this), -22);
    EXPECT_EQ(service_app_main(1, nullptr, &callbacks, this), -22);
    callbacks.create = nullptr;
    EXPECT_EQ(service_app_main(1, arguments, &callbacks, this), -22);
    callbacks = {OnCreate, nullptr, OnControl, nullptr, nullptr};
    EXPECT_EQ(service_app_main(1, arguments, &callbacks, this), -22);
    callbacks = {OnCreate, OnTerminate, nullptr, nullptr, nullptr};
    EXPECT_EQ(service_app_main(1, arguments, &callbacks, this), -22);
    EXPECT_THAT(mEvents, IsEmpty());
    EXPECT_FALSE(FileExists(RunTime()));
}

TEST_F(ServiceAppTest, FalseFromCreateEndsTheApplication)
{
    mCreate = [] { return false; };
    EXPECT_EQ(Run(), 0);
    EXPECT_THAT(mEvents, ElementsAre("create", "terminate"));
}

TEST_F(ServiceAppTest, ExitDuringCreateEndsTheLoopAtOnce)
{
    mCreate = [] {
        app_efl_exit();
        return true;
    };
    EXPECT_EQ(Run(), 0);
    EXPECT_THAT(mEvents, ElementsAre("create", "terminate"));
}

TEST_F(ServiceAppTest, ExitDuringTerminateAndOutsideDoesNothing)
{
    service_app_exit();
    app_efl_exit();
    mTerminate = [] {
        service_app_exit();
        return true;
    };
    RunWith([] {});
    service_app_exit();
}

TEST_F(ServiceAppTest, SignalsEndTheLoop)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        const StderrCapture quiet;
        mEvents.clear();
        mControl = [signal] { return raise(signal) == 0; };
        EXPECT_EQ(Run(), 0);
        EXPECT_THAT(mEvents, ElementsAre("create", "control", "terminate"));
    }
}

TEST_F(ServiceAppTest, SignalDuringCreateEndsTheLoop)
{
    const StderrCapture quiet;
    mCreate = [] { return raise(SIGTERM) == 0; };
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(mEvents.back(), "terminate");
}

TEST_F(ServiceAppTest, SignalsAreAsBeforeAfterwards)
{
    signal(SIGPIPE, SIG_DFL);
    signal(SIGXFSZ, SIG_DFL);
    mTerminate = [] { return raise(SIGTERM) == 0 && raise(SIGINT) == 0; };
    RunWith([] {
        EXPECT_TRUE(IsBlocked(SIGTERM) && IsBlocked(SIGINT));
        EXPECT_EQ(HandlerOf(SIGPIPE), SIG_IGN);
        EXPECT_EQ(HandlerOf(SIGXFSZ), SIG_IGN);
    });
    EXPECT_FALSE(IsBlocked(SIGTERM) || IsBlocked(SIGINT));
    EXPECT_EQ(HandlerOf(SIGPIPE), SIG_DFL);
    EXPECT_EQ(HandlerOf(SIGXFSZ), SIG_DFL);
}

TEST_F(ServiceAppTest, NoThreadIsStarted)
{
    // An emulator may have one of its own.
    const std::ptrdiff_t before = CountThreads();
    RunWith([before] { EXPECT_EQ(CountThreads(), before); });
}

TEST_F(ServiceAppTest, ProcessWithoutStandardDescriptorsKeepsItsFilesApart)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            close(fd);
        }
        mControl = [] {
            service_app_exit();
            std::error_code error;
            const auto target = std::filesystem::read_symlink("/proc/self/fd/2", error);
            return target == "/dev/null" || (_exit(1), false);
        };
        _exit(Run());
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(ServiceAppTest, SecondInstanceIsToldAndDisturbsNothing)
{
    RunWith([this] {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            // A program of its own, because a service inside of a service is refused before.
            const std::string lock = RunTime() + "/lock";
            const Parvane::UniqueFd file(open(lock.c_str(), O_RDWR | O_CLOEXEC));
            _exit(flock(file.Get(), LOCK_EX | LOCK_NB) == 0 ? 0 : errno);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(WEXITSTATUS(status), EWOULDBLOCK);
        EXPECT_EQ(Run(), -1);
    });

    const Parvane::UniqueFd other(open((RunTime() + "/lock").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(other.Get(), LOCK_EX | LOCK_NB), 0);
    WriteFile(RunTime() + "/link.sock", "the other one's");
    mEvents.clear();
    EXPECT_EQ(Run(), -114);
    EXPECT_THAT(mEvents, IsEmpty());
    EXPECT_EQ(ReadFile(RunTime() + "/link.sock"), "the other one's");
}

TEST_F(ServiceAppTest, StateDirectoryThatAnotherServiceUsesIsNamed)
{
    RunWith([this] {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            const Parvane::UniqueFd state(open(State().c_str(), O_RDONLY | O_CLOEXEC));
            _exit(flock(state.Get(), LOCK_EX | LOCK_NB) == 0 ? 0 : errno);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(WEXITSTATUS(status), EWOULDBLOCK);
    });

    const Parvane::UniqueFd other(open(State().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(other.Get(), LOCK_EX | LOCK_NB), 0);
    mEvents.clear();
    StderrCapture log;
    EXPECT_EQ(Run(), -114);
    EXPECT_THAT(mEvents, IsEmpty());
    EXPECT_EQ(log.Take(), "E platform: another process uses the state directory " + State() +
                              ": end it, or set STATE_DIRECTORY to one for this service alone\n");
    EXPECT_FALSE(FileExists(RunTime() + "/link.sock"));
}

TEST_F(ServiceAppTest, ServiceCanRunAgain)
{
    RunWith([] { EXPECT_EQ(preference_set_int("k", 5), 0); });
    mEvents.clear();
    RunWith([] {
        int value = 0;
        EXPECT_EQ(preference_get_int("k", &value), 0);
        EXPECT_EQ(value, 5);
    });
}

TEST_F(ServiceAppDeathTest, UnusableDirectoryIsOneLineAndStatusOne)
{
    WriteFile(mDirectory / "file", "");
    mEnvironment.Set("STATE_DIRECTORY", mDirectory / "file");
    EXPECT_EXIT(
        Run(), testing::ExitedWithCode(1),
        "^[^\n]* E platform: cannot use the state directory [^\n]*/file: Not a directory\n$");
    mEnvironment.Set("STATE_DIRECTORY", State());
    mEnvironment.Set("RUNTIME_DIRECTORY", mDirectory / "file/run");
    EXPECT_EXIT(Run(), testing::ExitedWithCode(1),
                "^[^\n]* E platform: cannot use the run-time directory [^\n]*/file/run: [^\n]*\n$");
}

TEST_F(ServiceAppDeathTest, BadSettingIsOneLineAndStatusOne)
{
    mEnvironment.Set("PARVANE_SPEED", "0");
    EXPECT_EXIT(Run(), testing::ExitedWithCode(1),
                "^[^\n]* E platform: PARVANE_SPEED is '0': it must be [^\n]*\n$");
}

TEST_F(ServiceAppDeathTest, BadConfigurationIsOneLineAndStatusOne)
{
    WriteFile(mDirectory / "platform.conf", "[control]\nenabled=perhaps\n[iio]\nroot=sys\n");
    EXPECT_EXIT(Run(), testing::ExitedWithCode(1),
                "^[^\n]* E platform: [^\n]*/platform.conf: line 2: .control. enabled is 'perhaps': "
                "it must be true, false, 1 or 0\n$");
    EXPECT_FALSE(FileExists(RunTime()));
}

TEST_F(ServiceAppDeathTest, BadRecordingIsOneLineAndStatusOne)
{
    WriteFile(mDirectory / "bad.csv", std::string(kRows) + "500,60,,,,,,,,\n");
    mEnvironment.Set("PARVANE_TRACE", mDirectory / "bad.csv");
    EXPECT_EXIT(Run(), testing::ExitedWithCode(1),
                "^[^\n]*bad.csv: line 4, column 1 .t_ms.: the time goes back from 1000 to 500 "
                "ms\n$");
    EXPECT_FALSE(FileExists(RunTime()));
}

TEST_F(ServiceAppTest, WithoutARuntimeEveryCallFailsCleanly)
{
    bool boolean = true;
    int number = 5;
    char *text = nullptr;
    const auto onChanged = [](int, int, context_data *, void *, int) {};
    const auto onKey = [](vconf_node *, void *) {};
    EXPECT_EQ(preference_get_boolean("k", &boolean), -1);
    EXPECT_EQ(preference_set_boolean("k", true), -1);
    EXPECT_EQ(preference_get_int("k", &number), -1);
    EXPECT_EQ(preference_set_int("k", 1), -1);
    EXPECT_EQ(preference_get_string("k", &text), -1);
    EXPECT_EQ(preference_set_string("k", "v"), -1);
    EXPECT_EQ(preference_is_existing("k", &boolean), -1);
    EXPECT_EQ(vconf_get_int("k", &number), -1);
    EXPECT_EQ(vconf_notify_key_changed("k", onKey, nullptr), -1);
    EXPECT_EQ(context_set_changed_callback(7, nullptr, onChanged, nullptr, &number), -1);
    EXPECT_EQ(context_unset_changed_callback(7), -1);
    EXPECT_EQ(context_get_context(7, nullptr, onChanged, nullptr, &number), -1);
    EXPECT_EQ(bt_initialize(), -1);
    EXPECT_EQ(bt_adapter_get_address(&text), -1);
    EXPECT_EQ(bt_deinitialize(), -1);
    EXPECT_EQ(power_lock_state(2, 1000), -1);
    EXPECT_EQ(registerNotifications(tal_notifications{}), -1);
    EXPECT_EQ(registerServiceAgent(nullptr), -1);
    EXPECT_EQ(findPeerAgent(1), -1);
    EXPECT_EQ(acceptServiceConnection(1, 1, nullptr, nullptr), -1);
    EXPECT_EQ(terminateServiceConnection(1), -1);
    EXPECT_EQ(sendData(1, 143, 1, "x"), 2);
    EXPECT_EQ(deRegisterServiceAgent(1), -1);
    EXPECT_EQ(deregisterNotifications(), -1);
    EXPECT_TRUE(boolean);
    EXPECT_EQ(number, 5);
    EXPECT_EQ(text, nullptr);
}

TEST_F(ServiceAppTest, NothingIsSentInATurnOfWhichAWriteHasFailed)
{
    Parvane::LoopSource nextTurn;
    mControl = [&nextTurn] {
        Runtime::Current()->Preferences().TakeTurnBack();
        EXPECT_EQ(preference_set_int("k", 1), -5);
        EXPECT_EQ(sendData(1, 143, 1, "x"), 3);
        nextTurn = Parvane::LoopSource::Post([] {
            EXPECT_EQ(preference_set_int("k", 1), 0);
            EXPECT_EQ(sendData(1, 143, 1, "x"), 2); // it has come as far as the missing host
            service_app_exit();
        });
        return true;
    };
    EXPECT_EQ(Run(), 0);
}

TEST_F(ServiceAppTest, NullArgumentsAreRefused)
{
    RunWith([] {
        EXPECT_EQ(preference_get_boolean(nullptr, nullptr), -22);
        EXPECT_EQ(preference_get_boolean("k", nullptr), -22);
        EXPECT_EQ(preference_set_boolean(nullptr, true), -22);
        EXPECT_EQ(preference_get_int("k", nullptr), -22);
        EXPECT_EQ(preference_set_int(nullptr, 1), -22);
        EXPECT_EQ(preference_get_string("k", nullptr), -22);
        EXPECT_EQ(preference_set_string("k", nullptr), -22);
        EXPECT_EQ(preference_is_existing("k", nullptr), -22);
        EXPECT_EQ(vconf_get_int(nullptr, nullptr), -22);
        EXPECT_EQ(vconf_get_int("k", nullptr), -22);
        EXPECT_EQ(vconf_notify_key_changed("k", nullptr, nullptr), -22);
        EXPECT_EQ(context_set_changed_callback(7, nullptr, nullptr, nullptr, nullptr), -22);
        EXPECT_EQ(context_get_context(7, nullptr, nullptr, nullptr, nullptr), -22);
        EXPECT_EQ(bt_adapter_get_address(nullptr), -22);
        EXPECT_EQ(registerServiceAgent(nullptr), 1);
        EXPECT_EQ(sendData(1, 143, 1, nullptr), 1);
    });
}

TEST_F(ServiceAppTest, PreferencesAreSavedWithoutFurtherCalls)
{
    RunWith([] {
        EXPECT_EQ(preference_set_boolean("b", true), 0);
        EXPECT_EQ(preference_set_string("s", "text"), 0);
    });
    mEvents.clear();
    RunWith([] {
        bool value = false;
        EXPECT_EQ(preference_get_boolean("b", &value), 0);
        EXPECT_TRUE(value);
        char *text = nullptr;
        EXPECT_EQ(preference_get_string("s", &text), 0);
        EXPECT_STREQ(text, "text");
        std::free(text);
        EXPECT_EQ(preference_get_string("b", &text), -22);
        EXPECT_EQ(preference_get_int("none", nullptr), -22);
        EXPECT_EQ(preference_is_existing("none", &value), 0);
        EXPECT_FALSE(value);
    });
}

TEST_F(ServiceAppTest, BluetoothAddressIsTheConfiguredOne)
{
    mEnvironment.Set("PARVANE_BT_ADDRESS", "aa:bb:cc:dd:ee:ff");
    RunWith([] {
        char *address = nullptr;
        EXPECT_EQ(bt_adapter_get_address(&address), -32511);
        EXPECT_EQ(bt_initialize(), 0);
        EXPECT_EQ(bt_adapter_get_address(&address), 0);
        EXPECT_STREQ(address, "AA:BB:CC:DD:EE:FF");
        std::free(address);
        EXPECT_EQ(bt_deinitialize(), 0);
    });
}

TEST_F(ServiceAppTest, RecordingIsPlayed)
{
    WriteFile(mDirectory / "run.csv", kRows);
    mEnvironment.Set("PARVANE_TRACE", mDirectory / "run.csv");
    mEnvironment.Set("PARVANE_SPEED", "1000");
    struct Steps
    {
        int mSubscription = -1;
        int mQuery = -1;
        std::vector<double> mReadings;
        std::vector<double> mAnswers;
    } steps;
    const auto onChanged = [](int error, int item, context_data *data, void *userData, int id) {
        EXPECT_EQ(error, 0);
        EXPECT_EQ(item, 2);
        double total = -1;
        const char *key = CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT;
        EXPECT_EQ(context_context_data_get_double(data, key, &total), 0);
        std::free(data);
        auto &received = *static_cast<Steps *>(userData);
        (id == received.mQuery ? received.mAnswers : received.mReadings).push_back(total);
        EXPECT_TRUE(id == received.mQuery || id == received.mSubscription);
        if (!received.mAnswers.empty() && received.mReadings.size() >= 4) {
            service_app_exit();
        }
    };
    mControl = [onChanged, &steps] {
        EXPECT_EQ(context_set_changed_callback(2, nullptr, onChanged, &steps, &steps.mSubscription),
                  0);
        EXPECT_EQ(context_get_context(2, nullptr, onChanged, &steps, &steps.mQuery), 0);
        EXPECT_THAT(steps.mReadings, IsEmpty());
        EXPECT_THAT(steps.mAnswers, IsEmpty());
        return true;
    };
    EXPECT_EQ(Run(), 0);
    EXPECT_THAT(steps.mAnswers, SizeIs(1));
    EXPECT_THAT(steps.mReadings, SizeIs(testing::Ge(4U)));
    EXPECT_TRUE(std::is_sorted(steps.mReadings.begin(), steps.mReadings.end()));
}

TEST_F(ServiceAppTest, SensorsWithoutARecordingAreSilent)
{
    RunWith([] {
        const auto onChanged = [](int, int, context_data *data, void *, int) {
            std::free(data);
            ADD_FAILURE() << "a reading";
        };
        int requestId = -1;
        for (const int item : {1, 2, 7, 23}) {
            EXPECT_EQ(context_set_changed_callback(item, nullptr, onChanged, nullptr, &requestId),
                      0);
            EXPECT_GT(requestId, 0);
            EXPECT_EQ(context_get_context(item, nullptr, onChanged, nullptr, &requestId), -61);
        }
        EXPECT_EQ(context_set_changed_callback(3, nullptr, onChanged, nullptr, &requestId), -95);
    });
}

TEST_F(ServiceAppTest, LinkStatusIsOneFromTheBeginning)
{
    mCreate = [] {
        int status = -1;
        EXPECT_EQ(vconf_get_int("memory/private/tal/conn_status", &status), 0);
        EXPECT_EQ(status, 1);
        const auto onKey = [](vconf_node *, void *) {};
        EXPECT_EQ(vconf_notify_key_changed("memory/private/tal/conn_status", onKey, nullptr), 0);
        return true;
    };
    RunWith([this] { EXPECT_TRUE(FileExists(RunTime() + "/link.sock")); });
    EXPECT_FALSE(FileExists(RunTime() + "/link.sock"));
}

/** Hears nothing. */
class NoEvents : public LifecycleEvents
{
public:
    void OnLowMemory() override {}
    void OnLowBattery() override {}
    void OnQuit() override {}
};

TEST_F(ServiceAppTest, IdleRuntimeNeverWakesTheLoop)
{
    Settings settings;
    settings.mStateDirectory = State();
    settings.mRuntimeDirectory = RunTime();
    settings.mReplay.mFiles = {mDirectory / "run.csv"};
    settings.mSensors.mHeartRate = SourceKind::Replay;
    WriteFile(settings.mReplay.mFiles.front(), kRows);
    NoEvents events;
    Runtime runtime(settings, events);
    ASSERT_EQ(Runtime::Current(), &runtime);
    EXPECT_EQ(preference_set_int("k", 1), 0);
    RunWhileBusy();
    EXPECT_EQ(NextWakeMs(), -1);
}

} // namespace ParvanePlatform
