#pragma once

#include <cstddef>

namespace Parvane {

/**
 * Which of the service's allocations fail.
 *
 * The test program is linked so that operator new, malloc, calloc and GLib's allocators pass through
 * here (WrappedAllocators.cpp, or another set). Only allocations of the service count, that is of what runs in a ServiceScope.
 */
class Allocation
{
public:
    static void FailNth(int n);

    /** The `n`-th from now fails, and so does every later one. */
    static void FailFrom(int n);
    static void FailSize(std::size_t least, std::size_t most);

    /** Ends all of it; false when the allocation that was to fail has not been made. */
    static bool StopFailing();

    /** Whether an allocation of this size, made now, is one that fails. */
    static bool Fails(std::size_t size);

    /** How many allocations the service has made so far. */
    static int Count();
};

/** While it lives, allocations are the platform's or the test's and never fail. */
class PlatformScope
{
public:
    /** Called whenever a scope ends and the service goes on; null for nothing. */
    static void SetReturnHook(void (*hook)());

    PlatformScope();
    ~PlatformScope();
    PlatformScope(const PlatformScope &) = delete;
    PlatformScope &operator=(const PlatformScope &) = delete;
};

/** While it lives, allocations are the service's. */
class ServiceScope
{
public:
    ServiceScope();
    ~ServiceScope();
    ServiceScope(const ServiceScope &) = delete;
    ServiceScope &operator=(const ServiceScope &) = delete;

private:
    int mOuter;
};

} // namespace Parvane
