#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "Allocation.h"

// The allocators of a program of which every allocation counts that is made while the service runs,
// also by the shared libraries that it calls: its strings, streams, exceptions and time zones.
//
// The program's malloc() takes the place of the C library's everywhere; operator new is that of the
// C++ library, with its loop around the new-handler, and calls it. A sanitizer has its own malloc(),
// which cannot be taken away from it: there operator new is the program's, and of malloc() only the
// program's own calls count.

#if defined(PARVANE_SANITIZED)

extern "C" {

void *__real_malloc(std::size_t size);
void *__real_calloc(std::size_t count, std::size_t size);

void *__wrap_malloc(std::size_t size)
{
    return Parvane::Allocation::Fails(size) ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(std::size_t count, std::size_t size)
{
    return Parvane::Allocation::Fails(count * size) ? nullptr : __real_calloc(count, size);
}

} // extern "C"

void *operator new(std::size_t size)
{
    while (true) {
        void *const block = std::malloc(size == 0 ? 1 : size);
        if (block != nullptr) {
            return block;
        }
        const std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) {
            throw std::bad_alloc();
        }
        handler();
    }
}

void *operator new[](std::size_t size)
{
    return ::operator new(size);
}

void operator delete(void *block) noexcept
{
    std::free(block);
}

void operator delete[](void *block) noexcept
{
    std::free(block);
}

void operator delete(void *block, std::size_t /*size*/) noexcept
{
    std::free(block);
}

void operator delete[](void *block, std::size_t /*size*/) noexcept
{
    std::free(block);
}

#else

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier,readability-*): the C library's own, under their names
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *block, std::size_t size);
// NOLINTEND(bugprone-reserved-identifier,readability-*)

void *malloc(std::size_t size) noexcept
{
    if (Parvane::Allocation::Fails(size)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}

void *calloc(std::size_t nmemb, std::size_t size) noexcept
{
    if (Parvane::Allocation::Fails(nmemb * size)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_calloc(nmemb, size);
}

void *realloc(void *ptr, std::size_t size) noexcept
{
    if (Parvane::Allocation::Fails(size)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_realloc(ptr, size);
}

} // extern "C"

#endif
