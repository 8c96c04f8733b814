#pragma once

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "ConnectionManager.h"
#include "ParvaneController.h"
#include "ScriptedPlatform.h"

/** The main() of ParvaneMain.cpp. */
extern "C" int ParvaneMain(int argc, char **argv);

namespace Parvane {

/** Calls the service's main() as the system does. */
inline int CallMain()
{
    std::string name = "parvane";
    char *arguments[] = {name.data(), nullptr};
    return ParvaneMain(1, arguments);
}

/**
 * Lets what belongs to the service live as long as the process.
 *
 * A started controller does so by its own parts; here it stays within reach besides.
 */
template <typename T>
void KeepForever(std::shared_ptr<T> object)
{
    static auto *const forever = new std::vector<std::shared_ptr<T>>;
    forever->push_back(std::move(object));
}

/**
 * The whole service, started by its main() and, between its callbacks, still running.
 *
 * Everything after the start comes from the scripted platform, as it would from the main loop. The
 * end is that of the framework: terminate is called, and nothing is delivered any more.
 */
class RunningService
{
public:
    explicit RunningService(ScriptedPlatform &platform)
    {
        platform.SetMainLoop([this](const service_app_callbacks &callbacks, void *userData) {
            mCallbacks = callbacks;
            mCell = userData;
            ScriptedPlatform::AsService([this] { mCreated = mCallbacks.create(mCell); });
            return 0;
        });
        CallMain();
        KeepForever(*static_cast<std::shared_ptr<ParvaneController> *>(mCell));
    }

    ~RunningService()
    {
        ConnectionManager::GetInstance()->SetListener(nullptr);
        mCallbacks.terminate(mCell);
        std::set_new_handler(nullptr);
    }

    RunningService(const RunningService &) = delete;
    RunningService &operator=(const RunningService &) = delete;

    /** What create returned. */
    bool IsCreated() const { return mCreated; }
    const service_app_callbacks &Callbacks() const { return mCallbacks; }

private:
    service_app_callbacks mCallbacks = {};
    void *mCell = nullptr;
    bool mCreated = false;
};

} // namespace Parvane
