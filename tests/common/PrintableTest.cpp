#include "Printable.h"

#include <string>

#include <gtest/gtest.h>

namespace Parvane {
namespace {

using std::string_view_literals::operator""sv;

TEST(PrintableTest, OrdinaryTextStaysAsItIs)
{
    EXPECT_EQ(Printable(""), "");
    EXPECT_EQ(Printable("caf\u00E9 \u00A0 \\ \"x\""), "caf\u00E9 \u00A0 \\ \"x\"");
    EXPECT_EQ(Printable("Z\u00FCrich \u20AC \U0001F3C3"), "Z\u00FCrich \u20AC \U0001F3C3");
    EXPECT_EQ(Printable("\u05D0\u0628 \uD7FF\uE000\U0010FFFF"),
              "\u05D0\u0628 \uD7FF\uE000\U0010FFFF");
}

TEST(PrintableTest, ControlCharactersBecomeTheirBytes)
{
    EXPECT_EQ(Printable("a\0b\n\t\x1b[31m\x7f"sv), "a\\x00b\\x0A\\x09\\x1B[31m\\x7F");
    EXPECT_EQ(Printable("\x1F \u0080\u0085\u009F\u00A0"),
              "\\x1F \\xC2\\x80\\xC2\\x85\\xC2\\x9F\u00A0");
}

TEST(PrintableTest, CharactersThatTurnTheDirectionBecomeTheirBytes)
{
    EXPECT_EQ(Printable("\u202Efdp.exe"), "\\xE2\\x80\\xAEfdp.exe");
    for (const char *mark : {"\u202A", "\u202B", "\u202C", "\u202D", "\u202E", "\u2066", "\u2067",
                             "\u2068", "\u2069", "\u200E", "\u200F", "\u061C"}) {
        const std::string escaped = Printable(mark);
        EXPECT_EQ(escaped.size(), 4 * std::string(mark).size()) << escaped;
        EXPECT_EQ(escaped.find(mark), std::string::npos) << escaped;
    }
}

TEST(PrintableTest, CharactersThatEndALineOrAreNotSeenBecomeTheirBytes)
{
    EXPECT_EQ(Printable("a\u2028b\u2029c"), "a\\xE2\\x80\\xA8b\\xE2\\x80\\xA9c");
    EXPECT_EQ(Printable("\uFEFFa\u200Bb"), "\\xEF\\xBB\\xBFa\\xE2\\x80\\x8Bb");
    EXPECT_EQ(Printable("\u2027\u202F\u2070"), "\u2027\u202F\u2070") << "their neighbours";
}

TEST(PrintableTest, BytesThatAreNoUtf8BecomeTheirNumbers)
{
    EXPECT_EQ(Printable("\xE4hm \xE2\x82"), "\\xE4hm \\xE2\\x82");
    EXPECT_EQ(Printable("\xC2"), "\\xC2");
    EXPECT_EQ(Printable("\xC0\x80\xED\xA0\x80"), "\\xC0\\x80\\xED\\xA0\\x80");
    EXPECT_EQ(Printable("\xE0\x9F\xBF\xF0\x8F\xBF\xBF"), "\\xE0\\x9F\\xBF\\xF0\\x8F\\xBF\\xBF")
        << "longer than they have to be";
    EXPECT_EQ(Printable("\xF4\x90\x80\x80"), "\\xF4\\x90\\x80\\x80") << "beyond the last";
    EXPECT_EQ(Printable("\xFF\xFE\x80"), "\\xFF\\xFE\\x80");
    EXPECT_EQ(Printable("\xE2\x82\u20AC"), "\\xE2\\x82\u20AC") << "what follows is whole";
}

TEST(PrintableTest, LongTextLosesItsEndAfterAWholeCharacter)
{
    EXPECT_EQ(Printable("abc", 3), "abc");
    EXPECT_EQ(Printable("abcd", 3), "abc...");
    EXPECT_EQ(Printable("ab\u20ACd", 4), "ab...");
    EXPECT_EQ(Printable("ab\u20ACd", 5), "ab\u20AC...");
    EXPECT_EQ(Printable("\n\n", 1), "\\x0A...");
}

} // namespace
} // namespace Parvane
