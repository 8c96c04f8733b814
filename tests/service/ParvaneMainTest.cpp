#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/service_app.h>

#include "LinkTest.h"
#include "LogMatchers.h"
#include "ParvaneController.h"
#include "RunningService.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;

using ControllerCell = std::shared_ptr<ParvaneController>;

// What the framework does with the callbacks while the main loop runs.
using Loop = std::function<void(const service_app_callbacks &, void *)>;

class ParvaneMainTest : public LinkTest
{
protected:
    void TearDown() override { std::set_new_handler(nullptr); }

    // Runs main() with a main loop that ends with `code`, and returns main()'s result.
    int Run(int code, const Loop &loop = {})
    {
        mPlatform.SetMainLoop([&](const service_app_callbacks &callbacks, void *userData) {
            mCell = static_cast<ControllerCell *>(userData);
            if (loop) {
                loop(callbacks, userData);
            }
            return code;
        });
        return CallMain();
    }

    // main() never frees the cell; only the terminate callback does.
    void KeepCell()
    {
        static auto *const forever = new std::vector<ControllerCell *>;
        forever->push_back(mCell);
    }

    std::vector<LogLine> LogOfResult(int code)
    {
        EXPECT_EQ(0, Run(code));
        KeepCell();
        return mPlatform.TakeLog();
    }

    static auto MainError(int line, const std::string &text)
    {
        return ErrorLine("ParvaneMain: main(" + std::to_string(line) + ")", text);
    }

    ControllerCell *mCell = nullptr;
};

// The way through main().

TEST_F(ParvaneMainTest, FrameworkGetsFiveCallbacksAndACellWithTheController)
{
    const int result = Run(0, [](const service_app_callbacks &callbacks, void *userData) {
        EXPECT_TRUE(callbacks.create != nullptr && callbacks.terminate != nullptr &&
                    callbacks.app_control != nullptr && callbacks.low_memory != nullptr &&
                    callbacks.low_battery != nullptr);
        EXPECT_EQ(1, static_cast<ControllerCell *>(userData)->use_count());
        callbacks.terminate(userData);
    });

    EXPECT_EQ(0, result);
}

TEST_F(ParvaneMainTest, NothingIsDoneBeforeTheFrameworkCallsBack)
{
    Run(0);
    KeepCell();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("service_app_main(1)"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ParvaneMainTest, EveryResultOfTheFrameworkEndsInExitStatusZero)
{
    for (const int code : {0, -22, -12, -1, -2, -114, -5, 17}) {
        EXPECT_EQ(0, Run(code)) << code;
        KeepCell();
    }
}

TEST_F(ParvaneMainTest, OutOfMemoryHasItsLineThenTheResult)
{
    EXPECT_THAT(
        LogOfResult(-12),
        ElementsAre(
            LogLine{6, "Parvane",
                    "ParvaneMain: main(108) > \033[0;40;31mAPP_ERROR_OUT_OF_MEMORY\033[0;m"},
            LogLine{
                6, "Parvane",
                "ParvaneMain: main(116) > \033[0;40;31mapp running is failed = [-12]\033[0;m"}));
}

TEST_F(ParvaneMainTest, InvalidParameterHasItsLineThenTheResult)
{
    EXPECT_THAT(LogOfResult(-22), ElementsAre(MainError(106, "APP_ERROR_INVALID_PARAMETER"),
                                              MainError(116, "app running is failed = [-22]")));
}

TEST_F(ParvaneMainTest, InvalidContextHasItsLineThenTheResult)
{
    EXPECT_THAT(LogOfResult(-1), ElementsAre(MainError(110, "APP_ERROR_INVALID_CONTEXT"),
                                             MainError(116, "app running is failed = [-1]")));
}

TEST_F(ParvaneMainTest, NoSuchFileHasItsLineThenTheResult)
{
    EXPECT_THAT(LogOfResult(-2), ElementsAre(MainError(112, "APP_ERROR_NO_SUCH_FILE"),
                                             MainError(116, "app running is failed = [-2]")));
}

TEST_F(ParvaneMainTest, AlreadyRunningHasItsLineThenTheResult)
{
    EXPECT_THAT(LogOfResult(-114), ElementsAre(MainError(114, "APP_ERROR_ALREADY_RUNNING"),
                                               MainError(116, "app running is failed = [-114]")));
}

TEST_F(ParvaneMainTest, AnyOtherResultHasOnlyTheLastLine)
{
    EXPECT_THAT(LogOfResult(-5), ElementsAre(MainError(116, "app running is failed = [-5]")));
    EXPECT_THAT(LogOfResult(1), ElementsAre(MainError(116, "app running is failed = [1]")));
}

TEST_F(ParvaneMainTest, FailedFrameworkIsNotTriedAgain)
{
    Run(-1);
    KeepCell();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("service_app_main(1)"));
}

// The callbacks.

TEST_F(ParvaneMainTest, CreateStartsTheService)
{
    Run(0, [this](const service_app_callbacks &callbacks, void *userData) {
        mPlatform.Forget();
        EXPECT_TRUE(callbacks.create(userData));
        KeepForever(*mCell);
        callbacks.terminate(userData);
    });

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("registerNotifications()", "registerServiceAgent()",
                            "preference_is_existing(Parvane/data/pedometer/value)",
                            "preference_get_boolean(Parvane/data/pedometer/requested)"));
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(LogLine{4, "Parvane", "ParvaneMain: app_create(41) > \033[1;35m ###\033[0;m"},
                    TraceLine("ParvaneMain: app_terminate(56)")));
}

TEST_F(ParvaneMainTest, CreateWithoutUserDataIsAnErrorAndEndsTheService)
{
    Run(0, [this](const service_app_callbacks &callbacks, void *userData) {
        mPlatform.Forget();
        EXPECT_TRUE(callbacks.create(nullptr));
        EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("app_efl_exit()"));
        EXPECT_THAT(mPlatform.TakeLog(),
                    ElementsAre(TraceLine("ParvaneMain: app_create(41)"),
                                LogLine{6, "Parvane",
                                        "ParvaneMain: app_create(47) > "
                                        "\033[0;40;31mservice controll is not found\033[0;m"}));
        callbacks.terminate(userData);
    });
}

TEST_F(ParvaneMainTest, TerminateReleasesACellThatWasNeverStartedWithItsController)
{
    std::weak_ptr<ParvaneController> canary;

    Run(0, [this, &canary](const service_app_callbacks &callbacks, void *userData) {
        canary = *mCell;
        callbacks.terminate(userData);
    });

    EXPECT_TRUE(canary.expired());
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(LogLine{4, "Parvane",
                                                         "ParvaneMain: app_terminate(56) > "
                                                         "\033[1;35m ###\033[0;m"}));
}

TEST_F(ParvaneMainTest, TerminateLeavesAStartedControllerToItsParts)
{
    std::weak_ptr<ParvaneController> canary;

    Run(0, [this, &canary](const service_app_callbacks &callbacks, void *userData) {
        canary = *mCell;
        callbacks.create(userData);
        callbacks.terminate(userData);
    });

    EXPECT_FALSE(canary.expired());
    KeepForever(canary.lock());
}

TEST_F(ParvaneMainTest, TerminateWithoutUserDataOnlyLogs)
{
    std::weak_ptr<ParvaneController> canary;

    Run(0, [this, &canary](const service_app_callbacks &callbacks, void * /*userData*/) {
        canary = *mCell;
        mPlatform.Forget();
        callbacks.terminate(nullptr);
    });

    EXPECT_FALSE(canary.expired());
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(TraceLine("ParvaneMain: app_terminate(56)")));
    KeepCell();
}

TEST_F(ParvaneMainTest, LaunchRequestIsLoggedAndNotRead)
{
    Run(0, [this](const service_app_callbacks &callbacks, void *userData) {
        mPlatform.Forget();
        callbacks.app_control(nullptr, userData);
        callbacks.app_control(nullptr, nullptr);
        callbacks.terminate(userData);
    });

    const LogLine trace = {4, "Parvane", "ParvaneMain: app_service(67) > \033[1;35m ###\033[0;m"};
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(trace, trace, _));
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ParvaneMainTest, LowMemoryEndsTheService)
{
    Run(0, [this](const service_app_callbacks &callbacks, void *userData) {
        mPlatform.Forget();
        callbacks.low_memory(nullptr);
        callbacks.terminate(userData);
    });

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("service_app_exit()"));
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(LogLine{4, "Parvane",
                                                         "ParvaneMain: app_low_memory(72) > "
                                                         "\033[1;35m ###\033[0;m"},
                                                 _));
}

TEST_F(ParvaneMainTest, LowBatteryEndsTheService)
{
    Run(0, [this](const service_app_callbacks &callbacks, void *userData) {
        mPlatform.Forget();
        callbacks.low_battery(nullptr);
        callbacks.terminate(userData);
    });

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("service_app_exit()"));
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(LogLine{4, "Parvane",
                                                         "ParvaneMain: app_low_battery(79) > "
                                                         "\033[1;35m ###\033[0;m"},
                                                 _));
}

// Memory.

TEST_F(ParvaneMainTest, OutOfMemoryHandlerEndsTheServiceAndUninstallsItself)
{
    Run(0, [this](const service_app_callbacks &callbacks, void *userData) {
        mPlatform.Forget();
        std::get_new_handler()();
        EXPECT_EQ(nullptr, std::get_new_handler());
        EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("app_efl_exit()"));
        EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(LogLine{4, "Parvane",
                                                             "ParvaneMain: out_of_memory(34) > "
                                                             "\033[1;35m ###\033[0;m"}));
        callbacks.terminate(userData);
    });
}

TEST_F(ParvaneMainTest, OutOfMemoryHandlerAsksForTheExitBeforeItUninstallsItself)
{
    Run(0, [this](const service_app_callbacks &callbacks, void *userData) {
        bool isInstalled = false;
        mPlatform.OnNextCall("app_efl_exit",
                             [&isInstalled] { isInstalled = std::get_new_handler() != nullptr; });
        std::get_new_handler()();
        EXPECT_TRUE(isInstalled);
        callbacks.terminate(userData);
    });
}

// The platform's own call may run out of memory just as well.
TEST_F(ParvaneMainTest, OutOfMemoryHandlerMeetsItselfWithoutEnd)
{
    Run(0, [this](const service_app_callbacks &callbacks, void *userData) {
        mPlatform.Forget();
        mPlatform.OnNextCall("app_efl_exit", [] { std::get_new_handler()(); });
        std::get_new_handler()();
        EXPECT_EQ(nullptr, std::get_new_handler());
        EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("app_efl_exit()"));
        callbacks.terminate(userData);
    });
}

// Calls the operators themselves: what a new-expression allocates may be optimized away.
bool AllocatingEndsInBadAlloc()
{
    try {
        ScriptedPlatform::AsService([] { ::operator delete(::operator new(16)); });
    } catch (const std::bad_alloc &) {
        return true;
    }
    return false;
}

TEST_F(ParvaneMainTest, FailedAllocationEndsInBadAllocAfterOneRequestToExit)
{
    Run(0, [this](const service_app_callbacks &callbacks, void *userData) {
        mPlatform.Forget();
        mPlatform.FailAllocation(1);
        EXPECT_TRUE(AllocatingEndsInBadAlloc());
        EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("app_efl_exit()"));
        callbacks.terminate(userData);
    });
}

TEST_F(ParvaneMainTest, StartWithoutMemoryAsksForTheExitAndEndsInStatusZero)
{
    EXPECT_EQ(nullptr, std::get_new_handler());
    int result = -1;

    mPlatform.FailAllocation(1);
    ScriptedPlatform::AsService([&result] { result = CallMain(); });

    EXPECT_TRUE(mPlatform.StopFailingAllocations());
    EXPECT_EQ(0, result);
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("app_efl_exit()"));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(TraceLine("ParvaneMain: out_of_memory(34)"),
                            ErrorLine("ParvaneMain: main(*)", "not started [std::bad_alloc]")));
}

// In a process of its own, since the cell lives as long as the process.
void StartWithoutMemoryForTheController(ScriptedPlatform &platform)
{
    int result = -1;
    platform.FailAllocation(2);
    ScriptedPlatform::AsService([&result] { result = CallMain(); });
    const bool asExpected = platform.StopFailingAllocations() && result == 0 &&
                            platform.TakeCalls() == std::vector<std::string>{"app_efl_exit()"};
    std::_Exit(asExpected ? 0 : 1);
}

TEST_F(ParvaneMainTest, StartWithoutMemoryForTheControllerEndsTheSameWay)
{
    EXPECT_EXIT(StartWithoutMemoryForTheController(mPlatform), testing::ExitedWithCode(0), "");
}

TEST_F(ParvaneMainTest, CreateSurvivesEveryFailedAllocation)
{
    bool reached = true;
    int incomplete = 0;
    const auto isIncomplete =
        ErrorLine("ParvaneMain: app_create(*)", "start is incomplete [std::bad_alloc]");
    for (int n = 1; reached; ++n) {
        Run(0, [&, n](const service_app_callbacks &callbacks, void *userData) {
            mPlatform.FailAllocation(n);
            ScriptedPlatform::AsService([&] { EXPECT_TRUE(callbacks.create(userData)); });
            reached = mPlatform.StopFailingAllocations();
            for (const LogLine &line : mPlatform.TakeLog()) {
                if (testing::Matches(isIncomplete)(line)) {
                    ++incomplete;
                }
            }
            ConnectionManager::GetInstance()->SetListener(nullptr);
            KeepForever(*mCell);
            callbacks.terminate(userData);
        });
        mPlatform.Forget();
        ASSERT_LT(n, 1000);
    }
    EXPECT_LT(0, incomplete);
}

} // namespace
} // namespace Parvane
