#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "CaptureFile.h"
#include "Messages.h"
#include "Result.h"

namespace ParvaneHost {

/** A packet of a capture. */
struct CapturedMessage
{
    bool operator==(const CapturedMessage &) const = default;

    std::chrono::sys_time<std::chrono::microseconds> mAt{};
    std::optional<Parvane::Sender> mSender; // nothing: the capture does not say it
    Bytes mBytes;
    std::vector<std::string> mComments;
};

/**
 * Reads a capture, a pcapng file as docs/capture.md describes it, in either byte order and with times of
 * any decimal resolution; blocks and options of other kinds are passed by. A last block that is
 * cut off, as of a file that is still written, ends it.
 *
 * @return the packets, in the order of the file; else why it is none, in one line
 */
Result<std::vector<CapturedMessage>, std::string> ReadCapture(std::span<const std::uint8_t> file);

} // namespace ParvaneHost
