#include "CaptureFile.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace ParvaneHost {

namespace {

using Block = std::vector<std::uint8_t>;

constexpr std::size_t kAlignment = 4;

// In the byte order of a section that says so; the smallest byte first.
void Append(Block &block, std::uint64_t value, std::size_t bytes)
{
    for (std::size_t i = 0; i < bytes; ++i) {
        block.push_back(static_cast<std::uint8_t>(value >> (8U * i)));
    }
}

void AppendPadded(Block &block, std::span<const std::uint8_t> bytes)
{
    block.insert(block.end(), bytes.begin(), bytes.end());
    block.resize((block.size() + kAlignment - 1) / kAlignment * kAlignment, 0);
}

/** The block of a type around its body, with its length in front and behind. */
Block Framed(std::uint32_t type, const Block &body)
{
    const std::size_t length = body.size() + 12;
    Block block;
    Append(block, type, 4);
    Append(block, length, 4);
    block.insert(block.end(), body.begin(), body.end());
    Append(block, length, 4);
    return block;
}

Block SectionHeader()
{
    Block body;
    Append(body, 0x1A2B3C4D, 4); // the byte order
    Append(body, 1, 2);          // version 1.0
    Append(body, 0, 2);
    Append(body, UINT64_MAX, 8); // of unknown length
    return Framed(0x0A0D0D0A, body);
}

Block InterfaceDescription()
{
    constexpr std::uint64_t kUser0 = 147;
    Block body;
    Append(body, kUser0, 2);
    Append(body, 0, 2);
    Append(body, 0, 4); // packets are never cut
    return Framed(1, body);
}

Block EnhancedPacket(Sender sender, std::span<const std::uint8_t> packet)
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto time =
        static_cast<std::uint64_t>(std::chrono::floor<std::chrono::microseconds>(now).count());
    Block body;
    Append(body, 0, 4); // the interface
    Append(body, time >> 32U, 4);
    Append(body, time & UINT32_MAX, 4);
    Append(body, packet.size(), 4);
    Append(body, packet.size(), 4);
    AppendPadded(body, packet);
    Append(body, 2, 2); // epb_flags, of 4 bytes: outbound or inbound
    Append(body, 4, 2);
    Append(body, sender == Sender::Phone ? 2 : 1, 4);
    Append(body, 0, 4); // the end of the options
    return Framed(6, body);
}

} // namespace

int CaptureFile::Open(const std::string &path)
{
    constexpr int kOwnerOnly = 0600; // somebody's heart rate
    mFile.Reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kOwnerOnly));
    if (!mFile) {
        return errno;
    }
    mSize = 0;
    Block beginning = SectionHeader();
    const Block interface = InterfaceDescription();
    beginning.insert(beginning.end(), interface.begin(), interface.end());
    return Write(beginning);
}

int CaptureFile::Add(Sender sender, std::span<const std::uint8_t> packet)
{
    return mFile ? Write(EnhancedPacket(sender, packet)) : 0;
}

int CaptureFile::Write(std::span<const std::uint8_t> bytes)
{
    const ssize_t written = ::write(mFile.Get(), bytes.data(), bytes.size());
    if (written == static_cast<ssize_t>(bytes.size())) {
        mSize += written;
        return 0;
    }
    // Less than all of it: the device is full, or the limit of a file's size is reached.
    const int error = written < 0 ? errno : ENOSPC;
    // In vain for a pipe; what reads it finds its last block cut off.
    [[maybe_unused]] const int isMended = ::ftruncate(mFile.Get(), mSize);
    mFile.Reset();
    return error;
}

} // namespace ParvaneHost
