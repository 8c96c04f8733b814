/*
 * Times the turns of a main loop from outside: preloaded into the service, it notes how long each
 * turn takes, from the moment at which poll() returns until the loop waits in it again. For as long
 * as that nobody else is served. The service itself is the one that ships.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "LoopTimes.h"

static struct LoopTimes *Times(void)
{
    static struct LoopTimes *times = NULL;
    const char *const name = times == NULL ? getenv("LOOP_TIMES") : NULL;
    if (name != NULL) {
        const int fd = open(name, O_RDWR | O_CLOEXEC);
        void *const mapped = mmap(NULL, sizeof *times, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (mapped == MAP_FAILED) {
            abort();
        }
        times = mapped;
    }
    return times;
}

static int64_t Now(clockid_t clock)
{
    struct timespec now;
    clock_gettime(clock, &now);
    return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

/*
 * How long the thread has been ready to run while the processors ran others, so far: what a machine
 * with nothing else to do would not have added. 0 where the kernel does not tell.
 */
static int64_t Kept(void)
{
    static int gFd = -2;
    if (gFd == -2) {
        gFd = open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC);
    }
    char text[64];
    const ssize_t size = gFd < 0 ? -1 : pread(gFd, text, sizeof text - 1, 0);
    if (size <= 0) {
        return 0;
    }
    text[size] = '\0';
    char *end = text;
    strtoll(text, &end, 10); // the time on a processor
    return strtoll(end, NULL, 10);
}

int poll(struct pollfd *fds, nfds_t count, int timeoutMs)
{
    static int64_t gBegin = 0;
    static int64_t gWorkBegin = 0;
    static int64_t gKeptBegin = 0;
    struct LoopTimes *const times = Times();
    // A poll() that does not wait is a part of some turn.
    const int isLoop = timeoutMs != 0 || count > 1;
    if (isLoop && gBegin != 0) {
        // The clock first, here and below: it is read without a system call, at whose end the
        // processor likes to go to others.
        const int64_t length = Now(CLOCK_MONOTONIC) - gBegin;
        const int64_t kept = Kept() - gKeptBegin;
        const int64_t work = Now(CLOCK_THREAD_CPUTIME_ID) - gWorkBegin;
        const int64_t own = length - kept;
        ++times->mTurns;
        times->mTotal += length;
        times->mLongest = length > times->mLongest ? length : times->mLongest;
        times->mLongestOwn = own > times->mLongestOwn ? own : times->mLongestOwn;
        times->mMostWork = work > times->mMostWork ? work : times->mMostWork;
    }
    struct timespec limit = {timeoutMs / 1000, (long)(timeoutMs % 1000) * 1000000};
    const int result = (int)syscall(SYS_ppoll, fds, count, timeoutMs < 0 ? NULL : &limit, NULL, 0);
    if (isLoop) {
        gBegin = Now(CLOCK_MONOTONIC);
        gKeptBegin = Kept();
        gWorkBegin = Now(CLOCK_THREAD_CPUTIME_ID);
    }
    return result;
}
