#include "PowerBackends.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeBusParts.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> NamesFor(PowerSettings::Lock lock)
{
    FakeBusParts bus;
    PowerSettings settings;
    settings.mLock = lock;
    std::vector<std::string> names;
    for (const auto &backend : MakePowerBackends(settings, &bus)) {
        names.emplace_back(backend->Name());
    }
    return names;
}

} // namespace

TEST(PowerBackendsTest, LogindIsAskedBeforeTheKernel)
{
    EXPECT_THAT(NamesFor(PowerSettings::Lock::Auto), ElementsAre("logind", "wake_lock"));
}

TEST(PowerBackendsTest, OneThatIsNamedIsTheOnlyOne)
{
    EXPECT_THAT(NamesFor(PowerSettings::Lock::Logind), ElementsAre("logind"));
    EXPECT_THAT(NamesFor(PowerSettings::Lock::WakeLock), ElementsAre("wake_lock"));
}

TEST(PowerBackendsTest, NothingHoldsWhenNothingIsAskedFor)
{
    EXPECT_THAT(NamesFor(PowerSettings::Lock::None), IsEmpty());
}

TEST(PowerBackendsTest, WakeLocksNeedNoBus)
{
    PowerSettings settings;
    settings.mLock = PowerSettings::Lock::WakeLock;
    EXPECT_EQ(MakePowerBackends(settings, nullptr).size(), 1U);
}

} // namespace ParvanePlatform
