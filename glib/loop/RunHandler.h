#pragma once

#include <functional>

namespace Parvane {

/**
 * Runs what GLib calls back. Nothing leaves it: what is thrown becomes a line of the process's log.
 *
 * @param where  what the line begins with, such as "main loop"
 */
void RunHandler(const char *where, const std::function<void()> &handler) noexcept;

/** Where those lines go, each without its end: for the whole process, at its start. GLib's log until then. */
void SetHandlerLog(void (*log)(const char *line) noexcept);

} // namespace Parvane
