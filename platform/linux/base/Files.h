#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ParvanePlatform {

/** Whether a write has reached the disk when the call returns, or just the file system. */
enum class Durability { FileSystem, Disk };

/**
 * Makes a directory and those above it that are missing, each with mode 0700.
 *
 * @return 0, also when it exists already, or an errno value
 */
int MakeDirectories(const std::string &path);

/**
 * Reads a regular file of at most `maxBytes` bytes.
 *
 * @return 0, or an errno value; EFBIG when the file is longer, EINVAL when it is not a regular file
 */
int ReadWholeFile(const std::string &path, std::size_t maxBytes, std::string &content);

/**
 * Writes a file of mode 0600 so that a reader sees the old content or the new one, never a part:
 * through the temporary file ".parvane-tmp" in the same directory, which is renamed.
 *
 * @return 0, or an errno value; the old file is whole then
 */
int WriteFileAtomically(const std::string &path, std::string_view content, Durability durability);

/** The text of an errno value. */
std::string ErrorText(int error);

/** Makes what happened to the names in a directory durable. Returns 0 or an errno value. */
int SyncDirectory(const std::string &path);

/** The part of a path before its last slash; "/" for a path directly below the root. */
std::string ParentOf(const std::string &path);

} // namespace ParvanePlatform
