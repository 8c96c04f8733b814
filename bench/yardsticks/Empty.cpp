/**
 * @file
 * A GLib main loop without work in a program that links the C++ library: says by one byte on its
 * standard output that the loop turns, and sleeps from then on.
 */

#include <iostream>

#include <glib.h>

namespace {

gboolean OnFirstTurn(gpointer /*data*/) noexcept
{
    std::cout << '.' << std::flush;
    return G_SOURCE_REMOVE;
}

} // namespace

int main()
{
    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    g_idle_add(OnFirstTurn, nullptr);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    return 0;
}
