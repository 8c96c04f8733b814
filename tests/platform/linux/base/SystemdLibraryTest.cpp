#include "SystemdLibrary.h"

#include <gtest/gtest.h>

namespace ParvanePlatform {

TEST(SystemdLibraryTest, LibraryOfTheSystemHasAllFunctions)
{
    const SystemdLibrary *library = SystemdLibrary::Get();
    if (library == nullptr) {
        GTEST_SKIP() << "this machine has no libsystemd";
    }
    EXPECT_NE(library->mJournalSend, nullptr);
    EXPECT_NE(library->mNotify, nullptr);
    EXPECT_NE(library->mWatchdogEnabled, nullptr);
    EXPECT_EQ(SystemdLibrary::Get(), library);
}

TEST(SystemdLibraryTest, MissingOrForeignLibraryIsRefused)
{
    SystemdLibrary library;
    EXPECT_FALSE(library.Load("libparvane-no-such-library.so.0"));
    EXPECT_FALSE(library.Load("libc.so.6"));
}

} // namespace ParvanePlatform
