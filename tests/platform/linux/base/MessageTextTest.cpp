#include "MessageText.h"

#include <string>

#include <gtest/gtest.h>

namespace ParvanePlatform {

TEST(MessageTextTest, TextIsPrintableAndLosesItsEndWhereItIsLong)
{
    EXPECT_EQ(Printable("a\n\u202E\xFF"), "a\\x0A\\xE2\\x80\\xAE\\xFF");
    const std::string most(kMaxQuotedBytes, 'x');
    EXPECT_EQ(Printable(most), most);
    EXPECT_EQ(Printable(most + "y"), most + "...");
}

TEST(MessageTextTest, PathIsWholeAndPrintable)
{
    const std::string directory(1000, 'd');
    EXPECT_EQ(PrintablePath("/" + directory + "/a\nb"), "/" + directory + "/a\\x0Ab");
}

} // namespace ParvanePlatform
