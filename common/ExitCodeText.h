#pragma once

namespace Parvane {

/** What the commands end with, for their --help; the documents have the same words. */
constexpr const char *kExitCodeText =
    "Exit codes:\n"
    "  0  done\n"
    "  1  a failure\n"
    "  2  bad usage\n"
    "  3  no answer in time, or no service that serves this user\n"
    "  4  the watch has no usable reading\n";

} // namespace Parvane
