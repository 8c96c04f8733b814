/* To be preloaded: the n-th allocation of the process fails. FailingMalloc.h has its variables. */
#define _GNU_SOURCE

#include "FailingMalloc.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

/* The C library's own, under the names that stay with it. */
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);

static struct FailingMallocReport own_report;
static struct FailingMallocReport *report = &own_report;
static int64_t first_to_fail;
static int64_t last_to_fail;
static uintptr_t stack_start;
static uintptr_t stack_size;

static int IsInGlib(const void *address)
{
    Dl_info where;
    return dladdr(address, &where) != 0 && where.dli_fname != NULL &&
           strstr(where.dli_fname, "libglib-2.0") != NULL;
}

/* Whether GLib called itself where the stack ended: its return addresses are all over the place. */
static int IsFullOfGlib(uintptr_t end_of_stack)
{
    enum { WORDS = 1024, ENOUGH = 16 };
    const uintptr_t page = (uintptr_t)sysconf(_SC_PAGESIZE);
    void *const *word = (void *const *)((end_of_stack + page) / page * page);
    int found = 0;
    for (int i = 0; i < WORDS && found < ENOUGH; ++i) {
        found += IsInGlib(word[i]);
    }
    return found == ENOUGH;
}

/* Runs on a stack of its own; when it returns, the instruction fails again and ends the process. */
static void OnFault(int number, siginfo_t *info, void *context)
{
    (void)context;
    const uintptr_t address = (uintptr_t)info->si_addr;
    if (address < stack_start && stack_start - address > stack_size - stack_size / 8 &&
        stack_start - address < stack_size + stack_size / 8 && IsFullOfGlib(address)) {
        report->has_overflown_in_glib = 1;
    }
    signal(number, SIG_DFL);
}

static void WatchStack(void)
{
    struct rlimit limit;
    if (getrlimit(RLIMIT_STACK, &limit) != 0) {
        return;
    }
    stack_start = (uintptr_t)&limit;
    stack_size = (uintptr_t)limit.rlim_cur;
    static char other_stack[65536];
    const stack_t other = {.ss_sp = other_stack, .ss_size = sizeof other_stack};
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = OnFault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    if (sigaltstack(&other, NULL) == 0) {
        sigaction(SIGSEGV, &action, NULL);
    }
}

__attribute__((constructor)) static void Arm(void)
{
    const char *path = getenv("PARVANE_MALLOC_REPORT");
    const int file = path == NULL ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (file >= 0) {
        void *shared = mmap(NULL, sizeof own_report, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        close(file);
        if (shared != MAP_FAILED) {
            report = shared;
        }
    }
    report->count = 0;
    WatchStack();
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
    const int64_t number = ++report->count;
    if (number < first_to_fail || number > last_to_fail) {
        return 0;
    }
    errno = ENOMEM;
    return 1;
}

void *malloc(size_t size)
{
    return Fails() ? NULL : __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    return Fails() ? NULL : __libc_calloc(count, size);
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
