#include <cstdlib>
#include <new>

#include <glib.h>

#include "Allocation.h"

// The allocators of a program whose own calls of them are counted: what it does itself, through
// inlined code included, and not what shared libraries do for it.

namespace Parvane {
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
