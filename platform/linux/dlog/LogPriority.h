#pragma once

namespace ParvanePlatform {

/** Priorities of the log, by the numbers of the platform. */
enum class LogPriority { Verbose = 2, Debug = 3, Info = 4, Warning = 5, Error = 6, Fatal = 7 };

} // namespace ParvanePlatform
