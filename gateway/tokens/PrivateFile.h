#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ParvaneGateway {

/** Reads a whole file of at most `mostBytes`. @return 0 or errno; EFBIG when it is longer */
int ReadPrivateFile(const std::string &path, std::size_t mostBytes, std::string &text);

/**
 * Puts a file of mode 0600 in the place of what is there, whole or not at all, and on the disk. It
 * belongs to whom its folder belongs to: root may write what the gateway's user reads.
 *
 * @throws std::system_error that names the file
 */
void ReplacePrivateFile(const std::string &path, std::string_view text);

} // namespace ParvaneGateway
