#include "CaptureFile.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "RegularFile.h"

namespace Parvane {

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

void AppendOption(Block &block, std::uint16_t code, std::span<const std::uint8_t> value)
{
    Append(block, code, 2);
    Append(block, value.size(), 2);
    AppendPadded(block, value);
}

Block EnhancedPacket(const CapturedPacket &packet, const std::vector<std::string> &comments)
{
    constexpr std::uint16_t kComment = 1;
    constexpr std::uint16_t kFlags = 2;
    const auto time = static_cast<std::uint64_t>(packet.mAt.time_since_epoch().count());
    Block body;
    Append(body, 0, 4); // the interface
    Append(body, time >> 32U, 4);
    Append(body, time & UINT32_MAX, 4);
    Append(body, packet.mBytes.size(), 4);
    Append(body, packet.mSize, 4);
    AppendPadded(body, packet.mBytes);
    for (const std::string &comment : comments) {
        AppendOption(body, kComment,
                     {reinterpret_cast<const std::uint8_t *>(comment.data()), comment.size()});
    }
    Block direction;
    Append(direction, packet.mSender == Sender::Phone ? 2 : 1, 4); // outbound or inbound
    AppendOption(body, kFlags, direction);
    Append(body, 0, 4); // the end of the options
    return Framed(6, body);
}

} // namespace

int CaptureFile::Open(const std::string &path, bool mayReplace)
{
    constexpr int kOwnerOnly = 0600; // somebody's heart rate
    if (const int error = MakeFile(path, mayReplace, 0, kOwnerOnly, mFile); error != 0) {
        return error;
    }
    mSize = 0;
    Block beginning = SectionHeader();
    const Block interface = InterfaceDescription();
    beginning.insert(beginning.end(), interface.begin(), interface.end());
    return Write(beginning);
}

void CaptureFile::LinkBegins(const std::string &run)
{
    mComments.push_back(std::string(kLinkBegins) + (run.empty() ? "" : ", run " + run));
}

int CaptureFile::Add(const CapturedPacket &packet)
{
    const auto comments = std::exchange(mComments, {});
    return mFile ? Write(EnhancedPacket(packet, comments)) : 0;
}

int CaptureFile::Add(Sender sender, std::span<const std::uint8_t> packet)
{
    const auto now = std::chrono::system_clock::now();
    return Add({sender, std::chrono::floor<std::chrono::microseconds>(now), packet, packet.size()});
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
    [[maybe_unused]] const int isMended = ::ftruncate(mFile.Get(), static_cast<off_t>(mSize));
    mFile.Reset();
    return error;
}

} // namespace Parvane
