#include "ForkedCall.h"

#include <cstdlib>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace Parvane {
namespace {

TEST(ForkedCallTest, ResultOfTheChildIsHandedOver)
{
    const std::string text(100000, 'x');
    EXPECT_EQ(text, CallForked("point", [&text] { return std::string(text); }));
}

TEST(ForkedCallTest, ChildThatDiesFailsTheTestWithItsPoint)
{
    EXPECT_NONFATAL_FAILURE(CallForked("point 7", []() -> std::string { std::_Exit(9); }),
                            "point 7 ended with status 9");
}

#if defined(__SANITIZE_ADDRESS__)
// Not inlined, so that no register of the caller still has the address.
[[gnu::noinline]] std::string LoseMemory()
{
    const void *const volatile lost = std::malloc(100);
    EXPECT_NE(nullptr, lost);
    return "";
}
#endif

TEST(ForkedCallTest, LeakOfTheChildFailsTheTest)
{
#if defined(__SANITIZE_ADDRESS__)
    EXPECT_NONFATAL_FAILURE(CallForked("point 7", LoseMemory), "point 7 leaked memory");
#else
    GTEST_SKIP() << "no leak sanitizer in this build";
#endif
}

} // namespace
} // namespace Parvane
