#pragma once

#include <cstdio>
#include <cstdlib>

namespace ParvaneFuzz {

/** Holds what has to be true for every input: ends the process, with a line that says what is not. */
inline void Require(bool isTrue, const char *what)
{
    if (!isTrue) {
        std::fprintf(stderr, "not true of this input: %s\n", what);
        std::abort();
    }
}

} // namespace ParvaneFuzz
