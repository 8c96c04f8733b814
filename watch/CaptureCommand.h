#pragma once

#include "CommandLine.h"
#include "CommandRunner.h"
#include "Signals.h"

namespace ParvaneWatch {

/**
 * Writes what crosses the link to a file, as an Invocation of Action::Capture says. Errors go to standard
 * error.
 *
 * @param signals  borrowed; one of them ends the capture well
 */
Outcome CaptureLink(const Invocation &invocation, const Parvane::Signals &signals);

} // namespace ParvaneWatch
