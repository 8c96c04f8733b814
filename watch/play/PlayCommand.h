#pragma once

#include "CommandLine.h"
#include "CommandRunner.h"
#include "Signals.h"

namespace ParvaneWatch {

/**
 * Plays a script to the service: reads it whole, sees that the service can be set, and sets it.
 *
 * Says on standard output how it ended, on standard error what went wrong and, on a terminal, how far
 * it is.
 */
Outcome PlayScript(const Invocation &invocation, const Parvane::Signals &signals);

} // namespace ParvaneWatch
