#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Recording.h"

namespace ParvanePlatform {

/**
 * Reads a recording from its text.
 *
 * @param name  what the text is called in messages
 * @throws StartupError "NAME: line N, column N (COLUMN): REASON", the parts that there are; one
 *         printable line, whatever name and text are
 */
Recording ParseRecording(const std::string &name, std::string_view text);

/**
 * Reads recordings from files of at most 256 MiB together. They are played one after the other, as
 * one: each begins where the round of the one before would have ended, and its pedometer goes on from
 * there (GoOnFrom()).
 *
 * @throws StartupError that names the path and the reason, also when there is no path, when there is
 *         no memory for them, and when a row would come later than a recording may last; or as
 *         ParseRecording() does
 */
Recording LoadRecordings(const std::vector<std::string> &paths);

} // namespace ParvanePlatform
