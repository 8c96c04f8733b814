#pragma once

#include <functional>
#include <memory>
#include <string>

#include <gio/gio.h>
#include <gtest/gtest.h>

#include "LoopSource.h"
#include "ObjectPtr.h"
#include "PrivateBus.h"
#include "TestSupport.h"

namespace ParvanePlatform {

/** A test on a bus of its own; skipped where the machine cannot have one. */
class BusTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (const std::string reason = PrivateBus::WhyNot(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mBus = std::make_unique<PrivateBus>();
    }

    /**
     * Turns the main loop until `done`, and asks at least every few milliseconds: for what does not
     * show in an event of the loop. False when that takes too long.
     */
    static bool Eventually(const std::function<bool()> &done)
    {
        Parvane::LoopSource tick;
        const std::function<void()> again = [&tick, &again] {
            tick = Parvane::LoopSource::At(g_get_monotonic_time() + 10'000, again);
        };
        again();
        return RunUntil(done);
    }

    /**
     * Waits until GLib's shared connection is not one to the bus of an earlier test: GLib gives it
     * out for as long as anything of it is in use.
     */
    static bool IsSharedConnectionFresh()
    {
        return Eventually([] {
            const Parvane::ObjectPtr<GDBusConnection> connection(
                g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
            if (connection) {
                g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
            }
            return connection && g_dbus_connection_is_closed(connection.get()) == FALSE;
        });
    }

    std::unique_ptr<PrivateBus> mBus;
};

} // namespace ParvanePlatform
