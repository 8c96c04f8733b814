#pragma once

namespace Parvane {

/** Whether `fd` is a terminal that can erase a line, by `term` ($TERM; null when it is not set). */
bool CanEraseLine(int fd, const char *term);

} // namespace Parvane
