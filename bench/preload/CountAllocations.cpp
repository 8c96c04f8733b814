/**
 * @file
 * Counts what a program allocates. Loaded before the C library (LD_PRELOAD), it keeps the counts in
 * the file that PARVANE_BENCH_ALLOCATIONS names, for another process to read while the program runs.
 */

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include "AllocationCounts.h"

using ParvaneBench::AllocationCounts;

// The C library's own names for what is replaced below.
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *block);
}

namespace {

constinit AllocationCounts gEarly;
constinit AllocationCounts *gCounts = &gEarly;

void *CountNew(void *block)
{
    if (block != nullptr) {
        ++gCounts->mAllocations;
        ++gCounts->mLive;
    }
    return block;
}

__attribute__((constructor)) void MapCounts()
{
    const char *path = std::getenv("PARVANE_BENCH_ALLOCATIONS");
    const int fd = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0) {
        return;
    }
    void *shared =
        mmap(nullptr, sizeof(AllocationCounts), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (shared != MAP_FAILED) {
        auto *counts = static_cast<AllocationCounts *>(shared);
        counts->mAllocations = gEarly.mAllocations.load();
        counts->mLive = gEarly.mLive.load();
        gCounts = counts;
    }
}

} // namespace

extern "C" {

void *malloc(size_t size)
{
    return CountNew(__libc_malloc(size));
}

void *calloc(size_t count, size_t size)
{
    return CountNew(__libc_calloc(count, size));
}

void *realloc(void *block, size_t size)
{
    if (block == nullptr) {
        return malloc(size);
    }
    if (size == 0) {
        free(block);
        return nullptr;
    }
    // Another block as far as its program is concerned.
    ++gCounts->mAllocations;
    return __libc_realloc(block, size);
}

void *memalign(size_t alignment, size_t size)
{
    return CountNew(__libc_memalign(alignment, size));
}

void *aligned_alloc(size_t alignment, size_t size)
{
    return memalign(alignment, size);
}

int posix_memalign(void **block, size_t alignment, size_t size)
{
    *block = memalign(alignment, size);
    return *block != nullptr ? 0 : ENOMEM;
}

void free(void *block)
{
    if (block != nullptr) {
        --gCounts->mLive;
        __libc_free(block);
    }
}
}
