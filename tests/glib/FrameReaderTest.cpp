#include "FrameReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Parvane {
namespace {

using Bytes = std::vector<std::uint8_t>;

/** A frame of a client, with the mask 1, 2, 3, 4. */
Bytes Frame(std::uint8_t first, const Bytes &payload)
{
    Bytes frame = {first};
    if (payload.size() < 126) {
        frame.push_back(static_cast<std::uint8_t>(0x80 | payload.size()));
    } else if (payload.size() <= 0xFFFF) {
        frame.insert(frame.end(), {0xFE, static_cast<std::uint8_t>(payload.size() >> 8U),
                                   static_cast<std::uint8_t>(payload.size())});
    } else {
        frame.insert(frame.end(),
                     {0xFF, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(payload.size() >> 16U),
                      static_cast<std::uint8_t>(payload.size() >> 8U),
                      static_cast<std::uint8_t>(payload.size())});
    }
    frame.insert(frame.end(), {1, 2, 3, 4});
    for (std::size_t i = 0; i < payload.size(); ++i) {
        frame.push_back(static_cast<std::uint8_t>(payload[i] ^ (i % 4 + 1)));
    }
    return frame;
}

Bytes operator+(Bytes one, const Bytes &other)
{
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

class FrameReaderTest : public ::testing::Test
{
protected:
    /** With which code a reader of binary messages is closed by these bytes; Normal: by none. */
    static CloseCode CodeOf(const Bytes &bytes, std::size_t most = 65531)
    {
        FrameReader reader(FrameKind::Binary, most);
        reader.Feed(bytes);
        while (const auto event = reader.Next()) {
            if (event->mKind == FrameKind::Close) {
                EXPECT_FALSE(reader.Next());
                return event->mCode;
            }
        }
        return CloseCode::Normal;
    }
};

TEST_F(FrameReaderTest, MessagesAreWholeHoweverTheBytesAreCut)
{
    const Bytes bytes = Frame(0x82, {1, 2, 3}) + Frame(0x02, {4}) + Frame(0x89, {9}) +
                        Frame(0x00, {5}) + Frame(0x80, {6}) + Frame(0x82, Bytes(300, 7)) +
                        Frame(0x82, {});
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        FrameReader reader(FrameKind::Binary, 65531);
        std::vector<Bytes> messages;
        std::vector<Bytes> pings;
        const auto take = [&](std::span<const std::uint8_t> part) {
            reader.Feed(part);
            while (const auto event = reader.Next()) {
                (event->mKind == FrameKind::Ping ? pings : messages).push_back(event->mPayload);
            }
        };
        take(std::span(bytes).first(cut));
        take(std::span(bytes).subspan(cut));
        ASSERT_THAT(messages,
                    ::testing::ElementsAre(Bytes{1, 2, 3}, Bytes{4, 5, 6}, Bytes(300, 7), Bytes{}));
        ASSERT_THAT(pings, ::testing::ElementsAre(Bytes{9}));
    }
}

TEST_F(FrameReaderTest, ALongestMessageIsTakenAndALongerOneIsTooBig)
{
    EXPECT_EQ(CodeOf(Frame(0x82, Bytes(65531))), CloseCode::Normal);
    EXPECT_EQ(CodeOf(Frame(0x82, Bytes(65532))), CloseCode::TooBig);
    EXPECT_EQ(CodeOf(Frame(0x82, Bytes(65536))), CloseCode::TooBig);
    EXPECT_EQ(CodeOf(Frame(0x02, Bytes(8)) + Frame(0x80, Bytes(8)), 15), CloseCode::TooBig);
    // Before its bytes have come.
    EXPECT_EQ(CodeOf({0x82, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
              CloseCode::TooBig);
}

TEST_F(FrameReaderTest, WhatBreaksTheRulesEndsIt)
{
    EXPECT_EQ(CodeOf({0x82, 0x01, 0x05}), CloseCode::ProtocolError);      // no mask
    EXPECT_EQ(CodeOf(Frame(0xC2, {1})), CloseCode::ProtocolError);        // compressed
    EXPECT_EQ(CodeOf(Frame(0x83, {1})), CloseCode::ProtocolError);        // no such kind
    EXPECT_EQ(CodeOf(Frame(0x8B, {1})), CloseCode::ProtocolError);        // no such control frame
    EXPECT_EQ(CodeOf(Frame(0x80, {1})), CloseCode::ProtocolError);        // continues nothing
    EXPECT_EQ(CodeOf(Frame(0x09, {1})), CloseCode::ProtocolError);        // a ping in pieces
    EXPECT_EQ(CodeOf(Frame(0x89, Bytes(126))), CloseCode::ProtocolError); // a long ping
    EXPECT_EQ(CodeOf(Frame(0x02, {1}) + Frame(0x82, {1})), CloseCode::ProtocolError);
}

TEST_F(FrameReaderTest, TextIsOfAnotherTypeForAReaderOfBinary)
{
    EXPECT_EQ(CodeOf(Frame(0x81, {'a'})), CloseCode::WrongType);
}

TEST_F(FrameReaderTest, TextMustBeUtf8)
{
    FrameReader reader(FrameKind::Text, 100);
    reader.Feed(Frame(0x81, {0xC3, 0xA4}));
    EXPECT_EQ(reader.Next()->mPayload, (Bytes{0xC3, 0xA4}));
    reader.Feed(Frame(0x81, {0xC3}));
    EXPECT_EQ(reader.Next()->mCode, CloseCode::NotUtf8);
}

TEST_F(FrameReaderTest, AClientThatClosesIsAnsweredWithItsCode)
{
    EXPECT_EQ(CodeOf(Frame(0x88, {0x03, 0xE9})), CloseCode::GoingAway);
    EXPECT_EQ(CodeOf(Frame(0x88, {})), CloseCode::NoCode);
    EXPECT_EQ(CodeOf(Frame(0x88, {0x03})), CloseCode::ProtocolError);
    EXPECT_EQ(CodeOf(Frame(0x88, {0x03, 0xED})), CloseCode::ProtocolError); // 1005
    EXPECT_EQ(CodeOf(Frame(0x88, {0x03, 0xE8, 0xFF})), CloseCode::NotUtf8);
}

TEST_F(FrameReaderTest, AClientMasksAndReadsWhatIsNotMasked)
{
    const std::string masked = MakeFrame(FrameKind::Binary, "abcde", WebSocketRole::Client);
    EXPECT_EQ(masked.size(), 11U);
    FrameReader server(FrameKind::Binary, 100);
    server.Feed(Bytes(masked.begin(), masked.end()));
    EXPECT_EQ(server.Next()->mPayload, (Bytes{'a', 'b', 'c', 'd', 'e'}));

    const std::string plain = MakeFrame(FrameKind::Binary, std::string(300, 'a'));
    FrameReader client(FrameKind::Binary, 1000, WebSocketRole::Client);
    client.Feed(Bytes(plain.begin(), plain.end()));
    EXPECT_EQ(client.Next()->mPayload, Bytes(300, 'a'));
    client.Feed(Frame(0x82, {1}));
    EXPECT_EQ(client.Next()->mCode, CloseCode::ProtocolError);
}

TEST_F(FrameReaderTest, FramesOfTheServerHaveTheShortestLength)
{
    EXPECT_EQ(MakeFrame(FrameKind::Binary, "ab"), std::string("\x82\x02"
                                                              "ab"));
    EXPECT_EQ(MakeFrame(FrameKind::Ping, ""), std::string("\x89\x00", 2));
    EXPECT_EQ(MakeFrame(FrameKind::Binary, std::string(126, 'a')).substr(0, 4),
              std::string("\x82\x7E\x00\x7E", 4));
    EXPECT_EQ(MakeFrame(FrameKind::Text, std::string(65536, 'a')).substr(0, 10),
              std::string("\x81\x7F\x00\x00\x00\x00\x00\x01\x00\x00", 10));
    EXPECT_EQ(ClosePayload(CloseCode::AnotherPhone, "no"), "\x11\x39no");
}

} // namespace
} // namespace Parvane
