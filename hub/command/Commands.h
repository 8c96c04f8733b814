#pragma once

#include "CommandLine.h"
#include "Settings.h"

namespace ParvaneHub {

/**
 * Says how the hub that serves is doing, with all its watches.
 *
 * @throws Parvane::NoAnswer; std::runtime_error of another failure
 */
void ShowStatus(const Invocation &invocation, const Settings &settings);

/** Judges a configuration file, for people; one that cannot be read is bad usage. */
ExitCode CheckConfig(const Invocation &invocation);

} // namespace ParvaneHub
