#pragma once

#include <memory>

#include <gtest/gtest.h>

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

    std::unique_ptr<MockBus> mBus;
};

} // namespace ParvanePlatform
