#include <exception>
#include <memory>
#include <new>

#include <platform/service_app.h>

#include "Log.h"
#include "ParvaneController.h"

/**
 * @file
 * The entry: gives the platform's service framework its callbacks and runs its main loop.
 *
 * The callbacks' user data is a heap cell that holds the first reference to the top-level
 * controller. app_terminate frees the cell; if the framework never calls it, the cell stays for the
 * life of the process.
 */

namespace {

using ControllerCell = std::shared_ptr<Parvane::ParvaneController>;

// Called where an allocation fails. It ends the service once and uninstalls itself: this allocation
// and every later one that fails end in std::bad_alloc.
void out_of_memory()
{
    static bool isUnderWay = false;
    if (isUnderWay) {
        std::set_new_handler(nullptr); // an allocation of the calls below has failed as well
        return;
    }
    isUnderWay = true;
    PARVANE_TRACE_AT(34);
    app_efl_exit();
    std::set_new_handler(nullptr);
    isUnderWay = false;
}

bool app_create(void *user_data) noexcept
try {
    PARVANE_TRACE_AT(41);
    auto *const cell = static_cast<ControllerCell *>(user_data);
    if (cell == nullptr) {
        PARVANE_ERROR_AT(47, "service controll is not found");
        app_efl_exit();
        return true;
    }
    (*cell)->StartService();
    return true;
} catch (const std::exception &error) {
    PARVANE_ERROR("start is incomplete [%s]", error.what());
    return true;
}

void app_terminate(void *user_data) noexcept
{
    PARVANE_TRACE_AT(56);
    const std::unique_ptr<ControllerCell> cell(static_cast<ControllerCell *>(user_data));
}

void app_service(app_control_h /*request*/, void * /*user_data*/) noexcept
{
    PARVANE_TRACE_AT(67);
}

void app_low_memory(void * /*user_data*/) noexcept
{
    PARVANE_TRACE_AT(72);
    service_app_exit();
}

void app_low_battery(void * /*user_data*/) noexcept
{
    PARVANE_TRACE_AT(79);
    service_app_exit();
}

} // namespace

int main(int argc, char **argv)
try {
    std::set_new_handler(out_of_memory);
    // Static, so that a cell which nobody frees is not taken for a leak.
    [[gnu::used]] static ControllerCell *cell = nullptr;
    cell = new ControllerCell();
    *cell = std::make_shared<Parvane::ParvaneController>();

    service_app_callbacks callbacks = {app_create, app_terminate, app_service, app_low_memory,
                                       app_low_battery};
    const int result = service_app_main(argc, argv, &callbacks, cell);
    if (result == 0) {
        return 0;
    }
    switch (result) {
    case -22:
        PARVANE_ERROR_AT(106, "APP_ERROR_INVALID_PARAMETER");
        break;
    case -12:
        PARVANE_ERROR_AT(108, "APP_ERROR_OUT_OF_MEMORY");
        break;
    case -1:
        PARVANE_ERROR_AT(110, "APP_ERROR_INVALID_CONTEXT");
        break;
    case -2:
        PARVANE_ERROR_AT(112, "APP_ERROR_NO_SUCH_FILE");
        break;
    case -114:
        PARVANE_ERROR_AT(114, "APP_ERROR_ALREADY_RUNNING");
        break;
    default:
        break;
    }
    PARVANE_ERROR_AT(116, "app running is failed = [%d]", result);
    return 0;
} catch (const std::exception &error) {
    PARVANE_ERROR("not started [%s]", error.what());
    return 0;
}
