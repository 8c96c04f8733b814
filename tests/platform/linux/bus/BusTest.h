#pragma once

#include <functional>
#include <memory>

#include <glib.h>
#include <gtest/gtest.h>

#include "base/LoopSource.h"
#include "linux/TestSupport.h"
#include "linux/bus/MockBus.h"

namespace ParvanePlatform {

/** A test on a bus of its own; skipped where the machine cannot have one. */
class BusTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (const auto missing = MockBus::Missing()) {
            GTEST_SKIP() << *missing;
        }
        mBus = std::make_unique<MockBus>();
    }

    /**
     * Turns the main loop until `done`, and asks at least every few milliseconds: for what does not
     * show in an event of the loop. False when that takes too long.
     */
    static bool Eventually(const std::function<bool()> &done)
    {
        LoopSource tick;
        const std::function<void()> again = [&tick, &again] {
            tick = LoopSource::At(g_get_monotonic_time() + 10'000, again);
        };
        again();
        return RunUntil(done);
    }

    std::unique_ptr<MockBus> mBus;
};

} // namespace ParvanePlatform
