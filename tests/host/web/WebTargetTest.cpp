#include "WebTarget.h"

#include <gtest/gtest.h>

namespace ParvaneHost {
namespace {

TEST(WebTargetTest, AnAddressIsHostAndPort)
{
    const auto target = ParseWebAddress("wss://watch.local:9000/link");
    ASSERT_TRUE(target);
    EXPECT_EQ(target.Value().mHost, "watch.local");
    EXPECT_EQ(target.Value().mPort, 9000);
    EXPECT_TRUE(target.Value().mIsTls);
    EXPECT_EQ(target.Value().mAddress, "wss://watch.local:9000");
    EXPECT_EQ(ParseWebAddress("ws://watch").Value().mAddress, "ws://watch:8467");
    EXPECT_FALSE(ParseWebAddress("ws://watch").Value().mIsTls);
    EXPECT_EQ(ParseWebAddress("ws://[::1]:80/").Value().mAddress, "ws://[::1]:80");
    EXPECT_EQ(ParseWebAddress("ws://[::1]:80/").Value().mHost, "::1");
}

TEST(WebTargetTest, WhatIsNoAddressIsRefused)
{
    for (const char *text : {"", "watch", "http://watch", "ws://", "ws://watch:0",
                             "ws://watch:70000", "ws://watch/other", "ws://watch?token=1",
                             "ws://watch#1", "ws://me@watch", "ws:watch", "wss://wa tch"}) {
        EXPECT_FALSE(ParseWebAddress(text)) << text;
    }
}

TEST(WebTargetTest, AFingerprintHas64Digits)
{
    std::string pairs = "0A";
    std::string digits = "0a";
    for (int pair = 1; pair < 32; ++pair) {
        pairs += ":0A";
        digits += "0a";
    }
    EXPECT_EQ(ParseFingerprint(digits), pairs);
    EXPECT_EQ(ParseFingerprint(pairs), pairs);
    for (const std::string &text : {std::string(), digits + "0a", digits.substr(2),
                                    "0:" + digits.substr(1), digits.substr(1) + "g"}) {
        EXPECT_EQ(ParseFingerprint(text), std::nullopt) << text;
    }
}

TEST(WebTargetTest, ATokenIsOneWord)
{
    EXPECT_TRUE(IsToken("abc-_9"));
    for (const char *text : {"", "a b", "a\r\nHost: b", "\xC3\xA4"}) {
        EXPECT_FALSE(IsToken(text)) << text;
    }
}

} // namespace
} // namespace ParvaneHost
