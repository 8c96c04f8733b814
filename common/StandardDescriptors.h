#pragma once

namespace Parvane {

/**
 * Opens /dev/null in the place of standard input, output or error when the process was started
 * without it. A socket or file that took the number would get what is written there.
 *
 * First of all in a program. What cannot be opened stays closed.
 */
void ReserveStandardDescriptors();

} // namespace Parvane
