#pragma once

#include "CommandLine.h"
#include "Settings.h"

namespace ParvaneGateway {

/**
 * Runs a command that does not serve, and writes what it says.
 *
 * @param settings  as the configuration has them; not used by CheckConfig
 * @throws std::runtime_error of a failure
 */
ExitCode RunCommand(const Invocation &invocation, const Settings &settings);

/** Judges a configuration file, for people; one that cannot be read is bad usage. */
ExitCode CheckConfig(const Invocation &invocation);

} // namespace ParvaneGateway
