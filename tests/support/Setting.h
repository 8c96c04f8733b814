#pragma once

#include <cstdlib>

namespace Parvane {

/** A whole number above 0 from an environment variable; `otherwise` when it has none. */
inline int Setting(const char *name, int otherwise)
{
    const char *const text = std::getenv(name);
    const int value = text == nullptr ? 0 : static_cast<int>(std::strtol(text, nullptr, 10));
    return value > 0 ? value : otherwise;
}

} // namespace Parvane
