#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <sys/types.h>

#include "UniqueFd.h"

namespace ParvaneHost {

/** Who sends a packet. */
enum class Sender {
    Phone,
    Watch,
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
    /** Begins the file, or a new one in its place. Returns 0, or the errno of what failed. */
    int Open(const std::string &path);

    /**
     * Adds a packet that crosses the link now; nothing when the file is not open.
     *
     * @return 0, or the errno of what failed, once
     */
    int Add(Sender sender, std::span<const std::uint8_t> packet);

private:
    int Write(std::span<const std::uint8_t> bytes);

    Parvane::UniqueFd mFile;
    off_t mSize = 0;
};

} // namespace ParvaneHost
