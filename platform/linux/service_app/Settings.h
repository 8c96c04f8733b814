#pragma once

#include <functional>
#include <optional>
#include <string>

namespace ParvanePlatform {

/** Looks a variable of the environment up; empty when it is not set. */
using Environment = std::function<std::optional<std::string>(const std::string &name)>;

/** The environment of the process. */
std::optional<std::string> ProcessEnvironment(const std::string &name);

/** What the environment asks of the runtime. */
struct Settings
{
    /** Absolute; kept over restarts. */
    std::string mStateDirectory;
    /** Absolute; for one run. */
    std::string mRuntimeDirectory;
    /** The recording that is played; empty when there is none. */
    std::string mTraceFile;
    /** How many times faster than recorded it is played. */
    double mTraceSpeed = 1.0;
    /** Whether it starts over at its end. */
    bool mTraceLoop = true;
    /** The adapter's address, upper case; empty when it is to be generated. */
    std::string mBluetoothAddress;
};

constexpr double kMinTraceSpeed = 0.001;
constexpr double kMaxTraceSpeed = 100000.0;

/**
 * Reads the settings; an empty variable counts as unset.
 *
 * State: the first entry of $STATE_DIRECTORY (a list with colons), $XDG_STATE_HOME/parvane,
 * $HOME/.local/state/parvane. Run-time files: the same with $RUNTIME_DIRECTORY,
 * $XDG_RUNTIME_DIR/parvane, /run/parvane. Relative XDG paths are ignored.
 * PARVANE_TRACE, PARVANE_SPEED (kMinTraceSpeed to kMaxTraceSpeed), PARVANE_LOOP (0 or 1) and
 * PARVANE_BT_ADDRESS as their fields say. Touches no file.
 *
 * @throws StartupError that names the variable, what it holds and what is allowed
 */
Settings ReadSettings(const Environment &environment);

} // namespace ParvanePlatform
