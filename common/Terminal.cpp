#include "Terminal.h"

#include <string_view>
#include <unistd.h>

namespace Parvane {

bool CanEraseLine(int fd, const char *term)
{
    const std::string_view name = term == nullptr ? "" : term;
    return !name.empty() && name != "dumb" && ::isatty(fd) == 1;
}

} // namespace Parvane
