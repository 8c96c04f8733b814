#pragma once

#include <stdexcept>

namespace ParvanePlatform {

/**
 * The service cannot start, for a reason that its user can mend: a path, a variable, a file.
 *
 * what() is the whole message, one line without its end, and names what was wrong. Thrown while the
 * runtime is built; service_app_main() prints it and ends the process with status 1.
 */
class StartupError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace ParvanePlatform
