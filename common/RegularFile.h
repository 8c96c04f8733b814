#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>

#include "ErrnoText.h"
#include "UniqueFd.h"

namespace Parvane {

/**
 * Opens a regular file that exists. Anything else is not even opened: that alone makes some devices do
 * something.
 *
 * @param flags  of open(); O_NOFOLLOW counts for the look before, too
 * @return 0, or an errno value; EISDIR for a directory, kNotARegularFile for what is neither
 */
int OpenRegularFile(const std::string &path, int flags, UniqueFd &file);

/**
 * Makes a file to write to.
 *
 * @param flags       of open(), besides those for that
 * @param mayReplace  whether what is there already may be overwritten, which a folder never is
 * @return 0, or an errno value: EEXIST for what is there, EISDIR for a folder
 */
int MakeFile(const std::string &path, bool mayReplace, int flags, mode_t mode, UniqueFd &file);

/**
 * Reads a regular file of at most `maxBytes` bytes.
 *
 * @return as OpenRegularFile(), or EFBIG when the file is longer; `content` is left alone then
 */
int ReadWholeFile(const std::string &path, std::size_t maxBytes, std::string &content);

} // namespace Parvane
