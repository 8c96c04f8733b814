#include "BusCalls.h"

#include <cstring>

namespace ParvanePlatform {

namespace {

/** The names that a method without arguments of the bus itself returns. */
bool IsListed(GDBusConnection *connection, const char *method, const char *name)
{
    const GVariantPtr answer(g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
        nullptr, G_VARIANT_TYPE("(as)"), G_DBUS_CALL_FLAGS_NONE, kLongestWaitMs, nullptr, nullptr));
    if (!answer) {
        return false;
    }
    const GVariantPtr names(g_variant_get_child_value(answer.get(), 0));
    for (gsize i = 0; i < g_variant_n_children(names.get()); ++i) {
        const GVariantPtr child(g_variant_get_child_value(names.get(), i));
        if (std::strcmp(g_variant_get_string(child.get(), nullptr), name) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace

bool IsServiceThere(GDBusConnection *connection, const char *name)
{
    return IsListed(connection, "ListNames", name) ||
           IsListed(connection, "ListActivatableNames", name);
}

} // namespace ParvanePlatform
