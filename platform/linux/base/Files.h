#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "RegularFile.h"

namespace ParvanePlatform {

/** Whether a write has reached the disk when the call returns, or just the file system. */
enum class Durability { FileSystem, Disk };

using Parvane::kNotARegularFile;
using Parvane::ReadWholeFile;

/**
 * Makes a directory and those above it that are missing, each with mode 0700.
 *
 * @param durability  Disk where what is kept in it outlives the system's end
 * @return 0, also when it exists already, or an errno value
 */
int MakeDirectories(const std::string &path, Durability durability = Durability::Disk);

/** The text of a file without the byte-order mark that some editors put at its beginning. */
inline std::string_view WithoutByteOrderMark(std::string_view text)
{
    constexpr std::string_view kMark = "\xEF\xBB\xBF";
    return text.substr(text.starts_with(kMark) ? kMark.size() : 0);
}

/**
 * Writes to the beginning of a regular file that exists, such as an attribute of sysfs. A symbolic
 * link is not followed.
 *
 * @return 0, or an errno value; EISDIR and kNotARegularFile as from ReadWholeFile()
 */
int WriteInPlace(const std::string &path, std::string_view content);

/**
 * Writes a file of mode 0600 so that a reader sees the old content or the new one, never a part:
 * through the temporary file ".parvane-tmp" in the same directory, which is renamed.
 *
 * @return 0, or an errno value; the old file is whole then
 */
int WriteFileAtomically(const std::string &path, std::string_view content, Durability durability);

/** The text of an errno value, kNotARegularFile included. */
inline std::string ErrorText(int error)
{
    return Parvane::ErrnoText(error);
}

/** Makes what happened to the names in a directory durable. Returns 0 or an errno value. */
int SyncDirectory(const std::string &path);

/** The part of a path before its last slash; "/" for a path directly below the root. */
std::string ParentOf(const std::string &path);

} // namespace ParvanePlatform
