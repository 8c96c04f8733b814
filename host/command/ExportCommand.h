#pragma once

#include "CommandLine.h"
#include "CommandRunner.h"

namespace ParvaneHost {

/**
 * Writes what captures hold in another form, as an Invocation of Action::Export says: to its file or
 * standard output. Errors go to standard error. It needs no watch.
 */
Outcome Export(const Invocation &invocation);

} // namespace ParvaneHost
