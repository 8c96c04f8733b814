#pragma once

#include <string>
#include <string_view>

namespace ParvaneGateway {

/**
 * Puts a file of mode 0600 in the place of what is there, whole or not at all, and on the disk. It
 * belongs to whom its folder belongs to: root may write what the gateway's user reads.
 *
 * @throws std::system_error that names the file
 */
void ReplacePrivateFile(const std::string &path, std::string_view text);

} // namespace ParvaneGateway
