#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ParvanePlatform {

/** More of a foreign text than this does not help whoever reads a message. */
constexpr std::size_t kMaxQuotedBytes = 200;
/** As long as a path can be that the kernel takes. */
constexpr std::size_t kMaxPathBytes = 4096;

/**
 * Foreign text, of any bytes, for a message: one line of UTF-8. Bytes that are no UTF-8, and those of
 * characters that end a line or control a terminal, become \xHH. Of a text of more than `maxBytes`
 * the end is cut off, after a whole character, and "..." stands for it.
 */
std::string Printable(std::string_view text, std::size_t maxBytes = kMaxQuotedBytes);

/** A path for a message, whole. */
std::string PrintablePath(std::string_view path);

} // namespace ParvanePlatform
