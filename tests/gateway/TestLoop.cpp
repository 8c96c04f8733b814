#include "TestLoop.h"

#include <chrono>

#include <glib.h>

namespace ParvaneGateway {

bool RunUntil(const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    bool isWoken = false;
    // The condition may be about what is outside of the loop.
    const guint tick = g_timeout_add(
        5,
        [](gpointer woken) -> gboolean {
            *static_cast<bool *>(woken) = true;
            return G_SOURCE_CONTINUE;
        },
        &isWoken);
    bool isTrue = condition();
    while (!isTrue && std::chrono::steady_clock::now() < end) {
        g_main_context_iteration(nullptr, TRUE);
        isTrue = condition();
    }
    g_source_remove(tick);
    return isTrue;
}

void RunDue()
{
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
}

} // namespace ParvaneGateway
