#include "Printable.h"

#include <string>

#include <gtest/gtest.h>

namespace ParvanePlatform {

TEST(PrintableTest, OrdinaryTextStaysAsItIs)
{
    EXPECT_EQ(Printable(""), "");
    EXPECT_EQ(Printable("run 1.csv"), "run 1.csv");
    EXPECT_EQ(Printable("Z\u00FCrich \u20AC \U0001F3C3"), "Z\u00FCrich \u20AC \U0001F3C3");
}

TEST(PrintableTest, ControlCharactersBecomeTheirBytes)
{
    using std::string_view_literals::operator""sv;
    EXPECT_EQ(Printable("a\0b\n\t\x1b[31m\x7f"sv), "a\\x00b\\x0A\\x09\\x1B[31m\\x7F");
    EXPECT_EQ(Printable("\u0085"), "\\xC2\\x85");
}

TEST(PrintableTest, CharactersThatEndALineOrTurnItsDirectionBecomeTheirBytes)
{
    EXPECT_EQ(Printable("a\u2028b\u2029c"), "a\\xE2\\x80\\xA8b\\xE2\\x80\\xA9c");
    EXPECT_EQ(Printable("\u202Efdp.exe"), "\\xE2\\x80\\xAEfdp.exe");
}

TEST(PrintableTest, BytesThatAreNoUtf8BecomeTheirNumbers)
{
    EXPECT_EQ(Printable("\xE4hm \xE2\x82"), "\\xE4hm \\xE2\\x82");
    EXPECT_EQ(Printable("\xC0\x80\xED\xA0\x80"), "\\xC0\\x80\\xED\\xA0\\x80");
    EXPECT_EQ(Printable("\xFF\xFE\x80"), "\\xFF\\xFE\\x80");
}

TEST(PrintableTest, LongTextLosesItsEndAfterAWholeCharacter)
{
    const std::string most(kMaxQuotedBytes, 'x');
    EXPECT_EQ(Printable(most), most);
    EXPECT_EQ(Printable(most + "y"), most + "...");
    EXPECT_EQ(Printable("ab\u20ACd", 4), "ab...");
    EXPECT_EQ(Printable("ab\u20ACd", 5), "ab\u20AC...");
}

TEST(PrintableTest, PathIsWholeAndPrintable)
{
    const std::string directory(1000, 'd');
    EXPECT_EQ(PrintablePath("/" + directory + "/a\nb"), "/" + directory + "/a\\x0Ab");
}

} // namespace ParvanePlatform
