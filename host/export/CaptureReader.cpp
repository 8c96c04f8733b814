#include "CaptureReader.h"

#include <stdexcept>
#include <utility>

namespace ParvaneHost {

namespace {

using std::chrono::microseconds;
using View = std::span<const std::uint8_t>;

constexpr std::uint32_t kSection = 0x0A0D0D0A;
constexpr std::uint32_t kInterface = 1;
constexpr std::uint32_t kEnhancedPacket = 6;
constexpr std::uint32_t kUser0 = 147;
constexpr std::size_t kFrame = 12; // of a block: its type, and twice its length

/** What is wrong with a file; ends the reading. */
class BadCapture : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/** The numbers of a file, in its byte order. */
class Numbers
{
public:
    Numbers() = default;
    explicit Numbers(bool isBigEndian) : mIsBigEndian(isBigEndian) {}

    /** Of 1 to 8 bytes. @throws BadCapture where there are not so many */
    [[nodiscard]] std::uint64_t At(View bytes, std::size_t offset, std::size_t size) const
    {
        if (offset + size > bytes.size()) {
            throw BadCapture("a block is too short for what it holds");
        }
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size; ++i) {
            value = value << 8U | bytes[offset + (mIsBigEndian ? i : size - 1 - i)];
        }
        return value;
    }

private:
    bool mIsBigEndian = false;
};

/** Reads block by block. */
class Reader
{
public:
    explicit Reader(View file) : mRest(file) {}

    std::vector<CapturedMessage> Read()
    {
        if (mRest.size() < kFrame || mNumbers.At(mRest, 0, 4) != kSection) {
            throw BadCapture("it is no pcapng file");
        }
        while (mRest.size() >= kFrame) {
            if (mNumbers.At(mRest, 0, 4) == kSection) { // its type reads the same both ways
                BeginSection();
            }
            const std::size_t length = static_cast<std::size_t>(mNumbers.At(mRest, 4, 4));
            if (length < kFrame || length % 4 != 0) {
                throw BadCapture("a block has a length of " + std::to_string(length));
            }
            if (length > mRest.size()) {
                break;
            }
            ReadBlock(mNumbers.At(mRest, 0, 4), mRest.subspan(8, length - kFrame));
            mRest = mRest.subspan(length);
        }
        return std::move(mMessages);
    }

private:
    void BeginSection()
    {
        constexpr std::uint32_t kMagic = 0x1A2B3C4D;
        mNumbers = Numbers(Numbers(true).At(mRest, 8, 4) == kMagic);
        if (mNumbers.At(mRest, 8, 4) != kMagic) {
            throw BadCapture("it is no pcapng file");
        }
        mTicks.clear();
    }

    void ReadBlock(std::uint64_t type, View body)
    {
        if (type == kInterface) {
            ReadInterface(body);
        } else if (type == kEnhancedPacket) {
            ReadPacket(body);
        }
    }

    /** Calls `take` with the code and the value of each option from `offset` on. */
    template <typename Take>
    void ReadOptions(View body, std::size_t offset, Take take) const
    {
        while (offset + 4 <= body.size()) {
            const std::uint64_t code = mNumbers.At(body, offset, 2);
            const std::size_t size = static_cast<std::size_t>(mNumbers.At(body, offset + 2, 2));
            if (code == 0) {
                return;
            }
            if (offset + 4 + size > body.size()) {
                throw BadCapture("an option is longer than its block");
            }
            take(code, body.subspan(offset + 4, size));
            offset += 4 + (size + 3) / 4 * 4;
        }
    }

    void ReadInterface(View body)
    {
        constexpr std::uint64_t kResolution = 9;
        constexpr unsigned kFinest = 9;
        if (const std::uint64_t link = mNumbers.At(body, 0, 2); link != kUser0) {
            throw BadCapture("it is a capture of something else, of the link type " +
                             std::to_string(link));
        }
        std::uint64_t ticks = 1000000;
        ReadOptions(body, 8, [&](std::uint64_t code, View value) {
            if (code != kResolution || value.empty()) {
                return;
            }
            if (value.front() > kFinest) {
                throw BadCapture("its times are of a resolution that is not known here");
            }
            ticks = 1;
            for (unsigned i = 0; i < value.front(); ++i) {
                ticks *= 10;
            }
        });
        mTicks.push_back(ticks);
    }

    void ReadPacket(View body)
    {
        constexpr std::size_t kHead = 20;
        constexpr std::uint64_t kComment = 1;
        constexpr std::uint64_t kFlags = 2;
        const std::size_t interface = static_cast<std::size_t>(mNumbers.At(body, 0, 4));
        const std::size_t size = static_cast<std::size_t>(mNumbers.At(body, 12, 4));
        if (interface >= mTicks.size() || size > body.size() || kHead + size > body.size()) {
            throw BadCapture("a packet has no interface, or is longer than its block");
        }
        CapturedMessage message;
        message.mAt =
            TimeOf(mNumbers.At(body, 4, 4) << 32U | mNumbers.At(body, 8, 4), mTicks[interface]);
        const View bytes = body.subspan(kHead, size);
        message.mBytes.assign(bytes.begin(), bytes.end());
        ReadOptions(body, kHead + (size + 3) / 4 * 4, [&](std::uint64_t code, View value) {
            if (code == kComment) {
                message.mComments.emplace_back(value.begin(), value.end());
            } else if (code == kFlags) {
                message.mSender = SenderOf(mNumbers.At(value, 0, 4));
            }
        });
        mMessages.push_back(std::move(message));
    }

    static std::chrono::sys_time<microseconds> TimeOf(std::uint64_t time, std::uint64_t ticks)
    {
        constexpr std::uint64_t kPerSecond = 1000000;
        constexpr std::uint64_t kLatest = 253402300800; // the year 10000
        const std::uint64_t seconds = time / ticks;
        if (seconds >= kLatest) {
            throw BadCapture("a packet is of a year after 9999");
        }
        const std::uint64_t us = seconds * kPerSecond + time % ticks * kPerSecond / ticks;
        return std::chrono::sys_time<microseconds>(microseconds(us));
    }

    static std::optional<Parvane::Sender> SenderOf(std::uint64_t flags)
    {
        switch (flags & 3U) {
        case 1:
            return Parvane::Sender::Watch;
        case 2:
            return Parvane::Sender::Phone;
        default:
            return std::nullopt;
        }
    }

    View mRest;
    Numbers mNumbers;
    std::vector<std::uint64_t> mTicks; // in a second, of each interface
    std::vector<CapturedMessage> mMessages;
};

} // namespace

Result<std::vector<CapturedMessage>, std::string> ReadCapture(View file)
{
    try {
        return Reader(file).Read();
    } catch (const BadCapture &failure) {
        return std::string(failure.what());
    }
}

} // namespace ParvaneHost
