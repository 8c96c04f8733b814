#ifndef PARVANE_FAILING_MALLOC_H
#define PARVANE_FAILING_MALLOC_H

#include <stdint.h> // NOLINT(modernize-deprecated-headers): a header of C

/**
 * @file
 * What the preloaded library FailingMalloc.c tells, in the file that PARVANE_MALLOC_REPORT names; it
 * is right even when the process dies.
 *
 * Which allocations fail is in PARVANE_FAIL_MALLOC: "N" for the N-th from the start of the process,
 * "N+" for it and all later ones.
 */
// NOLINTBEGIN(readability-identifier-naming): names of C
struct FailingMallocReport
{
    /** Allocations so far. */
    int64_t count;
    /** Whether the stack has been used up by GLib, which calls itself. */
    int64_t has_overflown_in_glib;
};
// NOLINTEND(readability-identifier-naming)

#endif
