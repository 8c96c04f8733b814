#include "Printable.h"

#include <string>

#include <gtest/gtest.h>

namespace ParvaneWatch {
namespace {

TEST(PrintableTest, TextStaysAsItIs)
{
    EXPECT_EQ(Printable("caf\xC3\xA9 \xC2\xA0 \\ \"x\""), "caf\xC3\xA9 \xC2\xA0 \\ \"x\"");
    EXPECT_EQ(Printable(""), "");
}

TEST(PrintableTest, ControlCharactersAreWrittenOut)
{
    EXPECT_EQ(Printable("\033[2J\n"), "\\x1B[2J\\x0A");
    EXPECT_EQ(Printable("a\x7F"), "a\\x7F");
    EXPECT_EQ(Printable("\xC2\x9B"
                        "2J\xC2\x80"),
              "\\xC2\\x9B2J\\xC2\\x80");
    EXPECT_EQ(Printable(std::string(1, '\0')), "\\x00");
}

TEST(PrintableTest, TextThatEndsInTheMiddleOfACharacterStaysAsItIs)
{
    EXPECT_EQ(Printable("\xC2"), "\xC2");
}

} // namespace
} // namespace ParvaneWatch
