#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace ParvaneFuzz {

/**
 * An input that is read from its front, byte by byte. An input that is too short reads as 0 from its
 * end on, so that every input means something. Numbers are big-endian. Borrows the bytes.
 */
class Input
{
public:
    Input(const std::uint8_t *data, std::size_t size) : mData(data), mSize(size) {}

    bool IsAtEnd() const { return mAt >= mSize; }
    std::uint8_t Byte() { return IsAtEnd() ? std::uint8_t{0} : mData[mAt++]; }

    /** A number of `bytes` bytes, 8 at most. */
    std::uint64_t Number(int bytes)
    {
        std::uint64_t number = 0;
        for (int i = 0; i < bytes; ++i) {
            number = number << 8U | Byte();
        }
        return number;
    }

    std::int32_t Int() { return static_cast<std::int32_t>(Number(4)); }

    /** As many bytes as the first one says, as far as they are there. */
    std::vector<std::uint8_t> Bytes()
    {
        std::vector<std::uint8_t> bytes;
        for (std::size_t left = Byte(); left > 0 && !IsAtEnd(); --left) {
            bytes.push_back(Byte());
        }
        return bytes;
    }

private:
    const std::uint8_t *mData;
    std::size_t mSize;
    std::size_t mAt = 0;
};

/** An input as text. */
inline std::string_view TextOf(const std::uint8_t *data, std::size_t size)
{
    return {reinterpret_cast<const char *>(data), size};
}

/** The parts of a text between separators; at least one. */
inline std::vector<std::string_view> Split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    for (;;) {
        const std::size_t end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(end + 1);
    }
}

} // namespace ParvaneFuzz

/** The function of every target, which libFuzzer and ReplayMain.cpp call. */
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
