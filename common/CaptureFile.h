#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

#include "UniqueFd.h"

namespace Parvane {

/** Who sends a packet. */
enum class Sender {
    Phone,
    Watch,
};

/** What a capture says of a packet. */
struct CapturedPacket
{
    Sender mSender = Sender::Phone;
    std::chrono::sys_time<std::chrono::microseconds> mAt{};
    std::span<const std::uint8_t> mBytes;
    std::size_t mSize = 0; // on the link; more than mBytes has when the packet was cut
};

/**
 * A capture of the link, a pcapng file as docs/capture.md describes it.
 *
 * Each packet is written at once and whole, so that the file can be read at any moment and whatever
 * ends the process. After a failed write, which leaves the file as it was before, nothing more is written.
 */
class CaptureFile
{
public:
    // The comments of the packet that comes next.
    static constexpr char kLinkBegins[] = "link begins";
    static constexpr char kPacketsMissing[] = "packets are missing here";

    /**
     * Begins the file.
     *
     * @param mayReplace  whether what is there already may be overwritten
     * @return 0, or the errno of what failed, as of MakeFile()
     */
    int Open(const std::string &path, bool mayReplace);

    [[nodiscard]] bool IsOpen() const noexcept { return static_cast<bool>(mFile); }

    /**
     * The next packet is the first one of a link.
     *
     * @param run  a name of the run of the service that it leads to; empty when that is not known
     */
    void LinkBegins(const std::string &run);

    /** Packets before the next one are not in the file. */
    void PacketsAreMissing() { mComments.emplace_back(kPacketsMissing); }

    /**
     * Adds a packet; nothing when the file is not open.
     *
     * @return 0, or the errno of what failed, once
     */
    int Add(const CapturedPacket &packet);

    /** Adds a packet that crosses the link now. */
    int Add(Sender sender, std::span<const std::uint8_t> packet);

private:
    int Write(std::span<const std::uint8_t> bytes);

    UniqueFd mFile;
    std::int64_t mSize = 0; // of the same size in each source, however that is compiled
    std::vector<std::string> mComments;
};

} // namespace Parvane
