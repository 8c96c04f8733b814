#include "ConfigText.h"

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneWatch {
namespace {

using nlohmann::json;
using testing::ElementsAre;

TEST(ConfigTextTest, EachValueHasWhereItIsFrom)
{
    const json config = {
        {"service", {{"version", "0.2.0"}}},
        {"file", {{"path", "/etc/p.conf"}, {"read", true}}},
        {"link_socket", "/run/p/link.sock"},
        {"control_socket", "/run/p/control.sock"},
        {"values",
         {{{"section", "sensors"}, {"key", "heart_rate"}, {"value", "ble"}, {"from", "line 2"}},
          {{"section", "replay"}, {"key", "files"}, {"value", {"/a", "/b"}}, {"from", "default"}},
          {{"section", "replay"}, {"key", "speed"}, {"value", 2.5}, {"from", "PARVANE_SPEED"}},
          {{"section", "replay"}, {"key", "loop"}, {"value", true}, {"from", "default"}},
          {{"section", "iio"}, {"key", "device"}, {"value", nullptr}, {"from", "line 9"}}}}};
    EXPECT_THAT(ConfigText(config),
                ElementsAre("service     version 0.2.0", "file        /etc/p.conf",
                            "link        /run/p/link.sock", "control     /run/p/control.sock", "",
                            "[sensors]", "heart_rate=ble                          /etc/p.conf:2",
                            "", "[replay]", "files=/a;/b                             default",
                            "speed=2.5                               PARVANE_SPEED",
                            "loop=true                               default", "", "[iio]",
                            "device=(too long to be told)            /etc/p.conf:9"));
}

TEST(ConfigTextTest, AFileThatIsNotThereIsSaidAndForeignTextIsHarmless)
{
    const json config = {{"file", {{"path", "/etc/p\033.conf"}, {"read", false}}}, {"values", 7}};
    EXPECT_EQ(ConfigText(config).at(1), "file        /etc/p\\x1B.conf, which is not there");
    EXPECT_EQ(ConfigText(json("nothing")).size(), 4U);
    EXPECT_EQ(ConfigText({{"values", {7, {{"value", "\033[2J"}}}}}).back(),
              "=\\x1B[2J" + std::string(40 - 8, ' '));
}

TEST(LogTextTest, LevelAndTagsAreExplained)
{
    EXPECT_THAT(LogText({{"level", "auto"}, {"tags", ""}}),
                ElementsAre("level       auto: every line, on a terminal from warning on",
                            "tags        any"));
    EXPECT_THAT(LogText({{"level", "error"}, {"tags", "a,b"}}),
                ElementsAre("level       error", "tags        a,b, and errors of any tag"));
    EXPECT_EQ(LogText({{"level", "verbose"}}).front(), "level       verbose: every line");
}

} // namespace
} // namespace ParvaneWatch
