#pragma once

#include <functional>

#include <platform/service_app.h>

#include "ScriptedPlatform.h"

namespace ParvaneFuzz {

/**
 * The whole service, started by its main(), between whose callbacks a target runs.
 *
 * It begins as in a new process, and with the object all of it ends: the parts of a service refer to
 * each other and otherwise live as long as the process, which has room for a few thousand of them.
 */
class FuzzedService
{
public:
    /** @param beforeCreate  called when the framework runs and create has not been called yet */
    explicit FuzzedService(Parvane::ScriptedPlatform &platform,
                           const std::function<void()> &beforeCreate = {});

    /** Lets time pass until no timer is left, then takes the service apart; all memory is back then. */
    ~FuzzedService();

    FuzzedService(const FuzzedService &) = delete;
    FuzzedService &operator=(const FuzzedService &) = delete;

    const service_app_callbacks &Callbacks() const { return mCallbacks; }

private:
    void WaitForTimers();

    Parvane::ScriptedPlatform &mPlatform;
    service_app_callbacks mCallbacks = {};
    void *mCell = nullptr;
};

} // namespace ParvaneFuzz
