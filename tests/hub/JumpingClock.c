/* The system's clock off by the seconds in the file of JUMPING_CLOCK, for a program that this is loaded into. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

int clock_gettime(clockid_t clock, struct timespec *now)
{
    static int (*system_clock)(clockid_t, struct timespec *);
    if (!system_clock) {
        *(void **)&system_clock = dlsym(RTLD_NEXT, "clock_gettime");
    }
    const int result = system_clock(clock, now);
    const char *path = getenv("JUMPING_CLOCK");
    FILE *file = clock == CLOCK_REALTIME && path ? fopen(path, "re") : NULL;
    if (file) {
        long long offset = 0;
        now->tv_sec += fscanf(file, "%lld", &offset) == 1 ? (time_t)offset : 0;
        fclose(file);
    }
    return result;
}
