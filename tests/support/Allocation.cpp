#include "Allocation.h"

#include <cstdint>
#include <cstdlib>
#include <new>

#include <glib.h>

namespace Parvane {

namespace {

int gRemaining = 0;
std::size_t gLeast = 0;
std::size_t gMost = SIZE_MAX;
// The test itself is no part of the service.
int gPlatformDepth = 1;

} // namespace

void Allocation::FailNth(int n)
{
    gRemaining = n;
    gLeast = 0;
    gMost = SIZE_MAX;
}

void Allocation::FailSize(std::size_t least, std::size_t most)
{
    gRemaining = 1;
    gLeast = least;
    gMost = most;
}

bool Allocation::StopFailing()
{
    const bool done = gRemaining == 0;
    gRemaining = 0;
    return done;
}

bool Allocation::Fails(std::size_t size)
{
    if (gRemaining == 0 || gPlatformDepth != 0 || size < gLeast || size > gMost) {
        return false;
    }
    --gRemaining;
    return gRemaining == 0;
}

PlatformScope::PlatformScope()
{
    ++gPlatformDepth;
}

PlatformScope::~PlatformScope()
{
    --gPlatformDepth;
}

ServiceScope::ServiceScope() : mOuter(gPlatformDepth)
{
    gPlatformDepth = 0;
}

ServiceScope::~ServiceScope()
{
    gPlatformDepth = mOuter;
}

namespace {

// What operator new does when memory has run out and stays so.
[[noreturn]] void RunOut()
{
    while (const std::new_handler handler = std::get_new_handler()) {
        handler();
    }
    throw std::bad_alloc();
}

} // namespace

} // namespace Parvane

// The linker sends the program's calls of an allocator F to __wrap_F, and those of __real_F to it.
#if __SIZEOF_SIZE_T__ == 8
#define PARVANE_OPERATOR(prefix, array) prefix##_Zn##array##m
#else
#define PARVANE_OPERATOR(prefix, array) prefix##_Zn##array##j
#endif

extern "C" {

void *__real_malloc(std::size_t size);
void *__real_calloc(std::size_t count, std::size_t size);
gpointer __real_g_malloc(gsize size);
gpointer __real_g_try_malloc(gsize size);
gpointer __real_g_try_malloc0(gsize size);
void *PARVANE_OPERATOR(__real_, w)(std::size_t size);
void *PARVANE_OPERATOR(__real_, a)(std::size_t size);

void *__wrap_malloc(std::size_t size);
void *__wrap_calloc(std::size_t count, std::size_t size);
gpointer __wrap_g_malloc(gsize size);
gpointer __wrap_g_try_malloc(gsize size);
gpointer __wrap_g_try_malloc0(gsize size);
void *PARVANE_OPERATOR(__wrap_, w)(std::size_t size);
void *PARVANE_OPERATOR(__wrap_, a)(std::size_t size);

void *__wrap_malloc(std::size_t size)
{
    return Parvane::Allocation::Fails(size) ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(std::size_t count, std::size_t size)
{
    return Parvane::Allocation::Fails(count * size) ? nullptr : __real_calloc(count, size);
}

// g_malloc() ends the process when memory has run out; the service has to use the other two.
gpointer __wrap_g_malloc(gsize size)
{
    return Parvane::Allocation::Fails(size) ? std::abort(), nullptr : __real_g_malloc(size);
}

gpointer __wrap_g_try_malloc(gsize size)
{
    return Parvane::Allocation::Fails(size) ? nullptr : __real_g_try_malloc(size);
}

gpointer __wrap_g_try_malloc0(gsize size)
{
    return Parvane::Allocation::Fails(size) ? nullptr : __real_g_try_malloc0(size);
}

void *PARVANE_OPERATOR(__wrap_, w)(std::size_t size)
{
    if (Parvane::Allocation::Fails(size)) {
        Parvane::RunOut();
    }
    return PARVANE_OPERATOR(__real_, w)(size);
}

void *PARVANE_OPERATOR(__wrap_, a)(std::size_t size)
{
    if (Parvane::Allocation::Fails(size)) {
        Parvane::RunOut();
    }
    return PARVANE_OPERATOR(__real_, a)(size);
}

} // extern "C"
