#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include <platform/service_app.h>

#include "ErrnoText.h"
#include "ErrorCode.h"
#include "LogWriter.h"
#include "MessageText.h"
#include "Runtime.h"
#include "RuntimeLog.h"
#include "ServiceLoop.h"
#include "Settings.h"
#include "StandardDescriptors.h"
#include "StartupError.h"

using namespace ParvanePlatform;

namespace {

/** The loop that runs; null outside service_app_main(). */
ServiceLoop *gLoop = nullptr;

/** Makes a loop known to the exit functions for the length of its life. */
class CurrentLoop
{
public:
    CurrentLoop(const service_app_callbacks &callbacks, void *userData) : mLoop(callbacks, userData)
    {
        gLoop = &mLoop;
    }
    ~CurrentLoop() { gLoop = nullptr; }

    CurrentLoop(const CurrentLoop &) = delete;
    CurrentLoop &operator=(const CurrentLoop &) = delete;

    void Run() { mLoop.Run(); }
    LifecycleEvents &Events() { return mLoop; }

private:
    ServiceLoop mLoop;
};

constexpr int kBadUsage = 2;

/** A program's name, from the path under which it was started. */
std::string ProgramName(const char *path)
{
    const std::string_view text = path != nullptr ? path : "service";
    return std::string(text.substr(text.rfind('/') + 1));
}

bool AreValid(int argc, char **argv, const service_app_callbacks *callbacks)
{
    return argc >= 1 && argv != nullptr && callbacks != nullptr && callbacks->create != nullptr &&
           callbacks->terminate != nullptr && callbacks->app_control != nullptr;
}

/** Arguments are for people who look for help: the service takes none. Does not return. */
[[noreturn]] void AnswerArguments(const std::string &program, const std::string &argument)
{
    if (argument == "--version") {
        std::printf("%s %s\n", program.c_str(), PARVANE_PLATFORM_VERSION);
    } else if (argument == "--help" || argument == "-h") {
        std::printf("Usage: %s [--help | --version]\n"
                    "The sensor service of a watch, in the foreground until SIGTERM or SIGINT. Its "
                    "settings are\n%s, or the file that PARVANE_PLATFORM_CONF names, and "
                    "the\nenvironment: see parvane(8) and parvane-platform.conf(5).\n",
                    program.c_str(), kSystemConfigFile);
    } else {
        std::fprintf(stderr, "%s: unknown argument %s; it takes none but --help and --version\n",
                     program.c_str(), Printable(argument).c_str());
        std::exit(kBadUsage);
    }
    if (std::fflush(stdout) == 0) {
        std::exit(EXIT_SUCCESS);
    }
    const int error = errno;
    std::fprintf(stderr, "%s: cannot write to standard output: %s\n", program.c_str(),
                 Parvane::ErrnoText(error).c_str());
    std::exit(EXIT_FAILURE);
}

int RunService(const service_app_callbacks &callbacks, void *userData)
{
    // Before the runtime: a signal during its construction must wait until there is a loop to end.
    CurrentLoop loop(callbacks, userData);
    const Settings settings = ReadSettings(std::getenv);
    StandardErrorLog().SetFilter(settings.mLog);
    Runtime runtime(settings, loop.Events());
    if (const std::string &taken = runtime.TakenDirectory(); !taken.empty()) {
        LogError("another process uses the %s", taken.c_str());
        return ErrorCode::kAlready;
    }
    loop.Run();
    return 0;
}

void Exit() noexcept
{
    if (gLoop != nullptr) {
        gLoop->Quit();
    }
}

} // namespace

/**
 * Needs create, terminate and app_control; the other two callbacks may be null.
 *
 * Returns 0 also when create returned false; -22 for bad arguments, -12 without memory, -1 when the
 * call comes from inside another or the system refuses what a loop needs, -114 when another process
 * uses one of the directories. A setting or path that cannot be used ends the process: one error
 * line, status 1. So do arguments: --help and --version with status 0, others with 2.
 */
extern "C" int service_app_main(int argc, char **argv, service_app_callbacks *callbacks,
                                void *user_data)
{
    if (!AreValid(argc, argv, callbacks)) {
        return ErrorCode::kInvalidParameter;
    }
    if (gLoop != nullptr) {
        return ErrorCode::kInvalidContext;
    }
    Parvane::ReserveStandardDescriptors();
    try {
        if (argc > 1 && argv[1] != nullptr) {
            AnswerArguments(ProgramName(argv[0]), argv[1]);
        }
        return RunService(*callbacks, user_data);
    } catch (const StartupError &failure) {
        LogError("%s", failure.what());
    } catch (const std::bad_alloc &) {
        return ErrorCode::kOutOfMemory;
    } catch (const std::exception &failure) {
        LogError("service_app_main: %s", failure.what());
        return ErrorCode::kInvalidContext;
    } catch (...) {
        LogError("service_app_main: unknown exception");
        return ErrorCode::kInvalidContext;
    }
    std::exit(EXIT_FAILURE);
}

/** Does nothing outside service_app_main(). */
extern "C" void service_app_exit(void)
{
    Exit();
}

/** Does nothing outside service_app_main(). Needs no memory, so that it works when that is gone. */
extern "C" void app_efl_exit(void)
{
    Exit();
}
