/*
 * A library to be preloaded: the n-th allocation of the process fails.
 *
 * PARVANE_FAIL_MALLOC is "N" for the N-th from the start of the process, "N+" for it and all later
 * ones. PARVANE_MALLOC_COUNT names an existing file of 8 bytes at least, whose first 8 are the number
 * of allocations so far, in the byte order of the machine; it is right even when the process dies.
 */
#define _GNU_SOURCE

#include <errno.h>
#include <fcntl.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

/* The C library's own, under the names that stay with it. */
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);

static _Atomic int64_t local_count;
static _Atomic int64_t *count = &local_count;
static int64_t first_to_fail;
static int64_t last_to_fail;

__attribute__((constructor)) static void Arm(void)
{
    const char *path = getenv("PARVANE_MALLOC_COUNT");
    const int file = path == NULL ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (file >= 0) {
        void *shared = mmap(NULL, sizeof(int64_t), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        close(file);
        if (shared != MAP_FAILED) {
            count = shared;
        }
    }
    *count = 0;
    const char *text = getenv("PARVANE_FAIL_MALLOC");
    if (text != NULL) {
        char *end = NULL;
        first_to_fail = strtoll(text, &end, 10);
        last_to_fail = *end == '+' ? INT64_MAX : first_to_fail;
    }
    /* The programs that it starts are not meant. */
    unsetenv("LD_PRELOAD");
}

static int Fails(void)
{
    const int64_t number = ++*count;
    const int fails = number >= first_to_fail && number <= last_to_fail;
    if (fails) {
        errno = ENOMEM;
    }
    return fails;
}

void *malloc(size_t size)
{
    return Fails() ? NULL : __libc_malloc(size);
}

void *calloc(size_t number, size_t size)
{
    return Fails() ? NULL : __libc_calloc(number, size);
}

void *realloc(void *block, size_t size)
{
    return Fails() ? NULL : __libc_realloc(block, size);
}

void *aligned_alloc(size_t alignment, size_t size)
{
    return Fails() ? NULL : __libc_memalign(alignment, size);
}

int posix_memalign(void **block, size_t alignment, size_t size)
{
    void *made = Fails() ? NULL : __libc_memalign(alignment, size);
    if (made == NULL) {
        return ENOMEM;
    }
    *block = made;
    return 0;
}
