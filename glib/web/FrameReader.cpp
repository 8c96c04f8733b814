#include "FrameReader.h"

#include <sys/random.h>
#include <tuple>
#include <utility>

#include <glib.h>

namespace Parvane {

namespace {

constexpr std::uint8_t kLast = 0x80;
constexpr std::uint8_t kReserved = 0x70;
constexpr std::uint8_t kOpcode = 0x0F;
constexpr std::uint8_t kMasked = 0x80;
constexpr std::uint8_t kLength = 0x7F;
constexpr std::uint8_t kShortLength = 126;
constexpr std::uint8_t kLongLength = 127;
constexpr std::uint8_t kContinuation = 0;
constexpr std::uint8_t kFirstControl = 8;
constexpr std::size_t kMostControlBytes = 125;
constexpr std::size_t kMaskBytes = 4;

bool IsUtf8(std::span<const std::uint8_t> bytes)
{
    return g_utf8_validate_len(reinterpret_cast<const char *>(bytes.data()), bytes.size(),
                               nullptr) != FALSE;
}

/** Whether one may close with that code. */
bool IsCloseCode(unsigned code)
{
    return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014) ||
           (code >= 3000 && code <= 4999);
}

} // namespace

std::string MakeFrame(FrameKind kind, std::string_view payload, WebSocketRole role)
{
    const bool isMasked = role == WebSocketRole::Client;
    std::string frame(1, static_cast<char>(kLast | static_cast<std::uint8_t>(kind)));
    int lengthBytes = 0;
    if (payload.size() < kShortLength) {
        frame += static_cast<char>(payload.size());
    } else if (payload.size() <= 0xFFFF) {
        frame += static_cast<char>(kShortLength);
        lengthBytes = 2;
    } else {
        frame += static_cast<char>(kLongLength);
        lengthBytes = 8;
    }
    for (int i = lengthBytes - 1; i >= 0; --i) {
        frame +=
            static_cast<char>(std::uint64_t{payload.size()} >> (8U * static_cast<unsigned>(i)));
    }
    if (!isMasked) {
        return frame.append(payload);
    }
    frame[1] = static_cast<char>(static_cast<std::uint8_t>(frame[1]) | kMasked);
    std::array<char, kMaskBytes> mask{}; // without chance it is still a mask
    std::ignore = ::getrandom(mask.data(), mask.size(), GRND_NONBLOCK);
    frame.append(mask.data(), mask.size());
    std::size_t index = 0;
    for (const char byte : payload) {
        frame += static_cast<char>(byte ^ mask[index++ % kMaskBytes]);
    }
    return frame;
}

std::string ClosePayload(CloseCode code, std::string_view reason)
{
    const auto number = static_cast<std::uint16_t>(code);
    std::string payload;
    payload += static_cast<char>(number >> 8U);
    payload += static_cast<char>(number & 0xFFU);
    return payload.append(reason.substr(0, kMostControlBytes - 2));
}

void FrameReader::Feed(std::span<const std::uint8_t> bytes)
{
    if (mHasEnded) {
        return;
    }
    mBytes.erase(mBytes.begin(), mBytes.begin() + static_cast<std::ptrdiff_t>(mBegin));
    mBegin = 0;
    mBytes.insert(mBytes.end(), bytes.begin(), bytes.end());
}

std::optional<FrameReader::Event> FrameReader::Next()
{
    while (!mHasEnded) {
        const auto header = ReadHeader();
        if (mCode != CloseCode::Normal) {
            return Break(mCode);
        }
        if (!header || Left() < header->mBytes + header->mLength) {
            return std::nullopt;
        }
        if (auto event = Take(*header)) {
            return event;
        }
    }
    return std::nullopt;
}

std::optional<FrameReader::Header> FrameReader::ReadHeader()
{
    if (Left() < 2) {
        return std::nullopt;
    }
    const std::uint8_t *bytes = mBytes.data() + mBegin;
    const std::uint8_t shortLength = bytes[1] & kLength;
    Header header{
        (bytes[0] & kLast) != 0, static_cast<std::uint8_t>(bytes[0] & kOpcode), shortLength, 2, {}};
    // Extensions have the reserved bits, and none was agreed on.
    if ((bytes[0] & kReserved) != 0 || ((bytes[1] & kMasked) != 0) != mIsMasked) {
        mCode = CloseCode::ProtocolError;
        return std::nullopt;
    }
    const std::size_t lengthBytes =
        shortLength == kShortLength ? 2 : (shortLength == kLongLength ? 8 : 0);
    if (Left() < 2 + lengthBytes) {
        return std::nullopt;
    }
    if (lengthBytes > 0) {
        header.mLength = 0;
        for (std::size_t i = 0; i < lengthBytes; ++i) {
            header.mLength = header.mLength << 8U | bytes[2 + i];
        }
    }
    if (!IsAllowed(header)) {
        return std::nullopt;
    }
    header.mBytes += lengthBytes + (mIsMasked ? kMaskBytes : 0);
    if (Left() < header.mBytes) {
        return std::nullopt;
    }
    for (std::size_t i = 0; mIsMasked && i < kMaskBytes; ++i) {
        header.mMask[i] = bytes[2 + lengthBytes + i];
    }
    return header;
}

bool FrameReader::IsAllowed(const Header &header)
{
    if (header.mOpcode >= kFirstControl) {
        if (!header.mIsLast || header.mLength > kMostControlBytes ||
            header.mOpcode > static_cast<std::uint8_t>(FrameKind::Pong)) {
            mCode = CloseCode::ProtocolError;
        }
    } else if (header.mOpcode > static_cast<std::uint8_t>(FrameKind::Binary) ||
               mIsFragmented != (header.mOpcode == kContinuation)) {
        mCode = CloseCode::ProtocolError;
    } else if (header.mOpcode != kContinuation &&
               header.mOpcode != static_cast<std::uint8_t>(mWanted)) {
        mCode = CloseCode::WrongType;
    } else if (header.mLength > mMostBytes - mMessage.size()) {
        mCode = CloseCode::TooBig;
    }
    return mCode == CloseCode::Normal;
}

std::optional<FrameReader::Event> FrameReader::Take(const Header &header)
{
    const auto begin = mBytes.begin() + static_cast<std::ptrdiff_t>(mBegin + header.mBytes);
    const auto end = begin + static_cast<std::ptrdiff_t>(header.mLength);
    mBegin += header.mBytes + static_cast<std::size_t>(header.mLength);
    const bool isControl = header.mOpcode >= kFirstControl;
    std::vector<std::uint8_t> control;
    std::vector<std::uint8_t> &payload = isControl ? control : mMessage;
    std::size_t index = 0;
    for (auto byte = begin; byte != end; ++byte) {
        payload.push_back(*byte ^ header.mMask[index++ % kMaskBytes]);
    }
    if (isControl) {
        return TakeControl(static_cast<FrameKind>(header.mOpcode), std::move(control));
    }
    mIsFragmented = !header.mIsLast;
    if (mIsFragmented) {
        return std::nullopt;
    }
    if (mWanted == FrameKind::Text && !IsUtf8(mMessage)) {
        return Break(CloseCode::NotUtf8);
    }
    return Event{mWanted, std::exchange(mMessage, {})};
}

std::optional<FrameReader::Event> FrameReader::TakeControl(FrameKind kind,
                                                           std::vector<std::uint8_t> payload)
{
    if (kind != FrameKind::Close) {
        return Event{kind, std::move(payload)};
    }
    if (payload.empty()) {
        return Break(CloseCode::NoCode);
    }
    const unsigned code = payload.size() < 2 ? 0U : unsigned{payload[0]} << 8U | payload[1];
    if (!IsCloseCode(code)) {
        return Break(CloseCode::ProtocolError);
    }
    return Break(IsUtf8(std::span(payload).subspan(2)) ? static_cast<CloseCode>(code)
                                                       : CloseCode::NotUtf8);
}

FrameReader::Event FrameReader::Break(CloseCode code)
{
    mHasEnded = true;
    mBytes.clear();
    mBegin = 0;
    mMessage.clear();
    return {FrameKind::Close, {}, code};
}

} // namespace Parvane
