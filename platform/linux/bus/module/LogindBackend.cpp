#include "LogindBackend.h"

#include <utility>

#include <gio/gunixfdlist.h>

#include "BusCalls.h"
#include "RuntimeLog.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

namespace {

class Inhibitor : public PowerHold
{
public:
    explicit Inhibitor(Parvane::UniqueFd fd) : mFd(std::move(fd)) {}

private:
    Parvane::UniqueFd mFd;
};

/** Returns the descriptor that is the inhibitor; none on failure, with why. */
Parvane::UniqueFd Inhibit(GDBusConnection *connection, Parvane::ErrorPtr &failure)
{
    // What a measurement must not be interrupted by: a suspension that somebody asks for, and one
    // that logind begins because nobody touches the device. Shutting down stays allowed.
    GVariant *parameters =
        g_variant_new("(ssss)", "sleep:idle", "Parvane", "A measurement is running", "block");
    GUnixFDList *list = nullptr;
    GError *error = nullptr;
    const Parvane::VariantPtr answer(g_dbus_connection_call_with_unix_fd_list_sync(
        connection, "org.freedesktop.login1", "/org/freedesktop/login1",
        "org.freedesktop.login1.Manager", "Inhibit", parameters, G_VARIANT_TYPE("(h)"),
        G_DBUS_CALL_FLAGS_NONE, kLongestWaitMs, nullptr, &list, nullptr, &error));
    const Parvane::ObjectPtr<GUnixFDList> descriptors(list);
    failure.reset(error);
    if (!answer || !descriptors) {
        return Parvane::UniqueFd();
    }
    gint32 index = 0;
    g_variant_get(answer.get(), "(h)", &index);
    if (index < 0 || index >= g_unix_fd_list_get_length(descriptors.get())) {
        return Parvane::UniqueFd();
    }
    Parvane::UniqueFd fd(g_unix_fd_list_get(descriptors.get(), index, &error));
    if (error != nullptr) {
        failure.reset(error);
    }
    return fd;
}

} // namespace

LogindBackend::LogindBackend(std::shared_ptr<SystemBus> bus) : mBus(std::move(bus)) {}

std::unique_ptr<PowerHold> LogindBackend::Hold(int /*timeoutMs*/)
{
    GDBusConnection *connection = mBus->Connection();
    Parvane::ErrorPtr failure;
    Parvane::UniqueFd fd =
        connection != nullptr ? Inhibit(connection, failure) : Parvane::UniqueFd();
    std::string problem;
    if (connection == nullptr) {
        problem = "no system bus";
    } else if (!fd) {
        problem = failure ? failure->message : "no descriptor in its answer";
    }
    const std::string before = std::exchange(mProblem, problem);
    if (!problem.empty()) {
        if (problem != before) {
            LogWarning("power: no inhibitor from logind: %s", problem.c_str());
        }
        return nullptr;
    }
    if (!before.empty()) {
        LogInfo("power: logind inhibits again");
    }
    return std::make_unique<Inhibitor>(std::move(fd));
}

} // namespace ParvanePlatform
