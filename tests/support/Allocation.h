#pragma once

#include <cstddef>

namespace Parvane {

/**
 * Which of the service's allocations fail.
 *
 * The test program is linked so that operator new, malloc, calloc and GLib's allocators pass through
 * here. Only allocations of the service count, that is of what runs in a ServiceScope.
 */
class Allocation
{
public:
    static void FailNth(int n);
    static void FailSize(std::size_t least, std::size_t most);

    /** Ends both; false when the allocation that was to fail has not been made. */
    static bool StopFailing();

    /** Whether an allocation of this size, made now, is the one that fails. */
    static bool Fails(std::size_t size);
};

/** While it lives, allocations are the platform's or the test's and never fail. */
class PlatformScope
{
public:
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
