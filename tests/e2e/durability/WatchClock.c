/*
 * The world of a watch as a test scripts it, preloaded into the service: what the clock and the zone
 * are, and what the pedometer's chip counts. The file that WATCH_WORLD names holds it (WatchWorld.h)
 * and is mapped, so that the test changes the world while the service sleeps.
 *
 * Times that run, for timers and waiting, pass faster for the whole process.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <platform/context_manager.h>

#include "WatchWorld.h"

static const struct WatchWorld *World(void)
{
    static const struct WatchWorld *world = NULL;
    const char *const name = world == NULL ? getenv("WATCH_WORLD") : NULL;
    if (name != NULL) {
        const int fd = open(name, O_RDONLY | O_CLOEXEC);
        void *const mapped = mmap(NULL, sizeof *world, PROT_READ, MAP_SHARED, fd, 0);
        close(fd);
        if (mapped == MAP_FAILED) {
            abort();
        }
        world = mapped;
    }
    return world;
}

static void FollowZone(const struct WatchWorld *world)
{
    static uint32_t gChanges = 0;
    if (gChanges != world->mZoneChanges) {
        gChanges = world->mZoneChanges;
        setenv("TZ", world->mZone, 1);
        tzset();
    }
}

time_t time(time_t *result)
{
    const struct WatchWorld *const world = World();
    FollowZone(world);
    const time_t now = (time_t)world->mClock;
    if (result != NULL) {
        *result = now;
    }
    return now;
}

int clock_gettime(clockid_t id, struct timespec *now)
{
    const long result = syscall(SYS_clock_gettime, id, now);
    if (result != 0) {
        return -1;
    }
    if (id == CLOCK_REALTIME) {
        now->tv_sec = (time_t)World()->mClock;
    } else if (id == CLOCK_MONOTONIC) {
        const int64_t nanoseconds = ((int64_t)now->tv_sec * 1000000000 + now->tv_nsec);
        // From a day on, as after a start of the machine, so that the product fits.
        static int64_t gStart = 0;
        gStart = gStart == 0 ? nanoseconds : gStart;
        const int64_t fast = (nanoseconds - gStart) * WATCH_SPEED + INT64_C(86400000000000);
        now->tv_sec = (time_t)(fast / 1000000000);
        now->tv_nsec = (long)(fast % 1000000000);
    }
    return 0;
}

int poll(struct pollfd *fds, nfds_t count, int timeoutMs)
{
    struct timespec left = {0, 0};
    if (timeoutMs > 0) {
        const int64_t nanoseconds = (int64_t)timeoutMs * 1000000 / WATCH_SPEED;
        left.tv_sec = (time_t)(nanoseconds / 1000000000);
        left.tv_nsec = (long)(nanoseconds % 1000000000);
    }
    return (int)syscall(SYS_ppoll, fds, count, timeoutMs < 0 ? NULL : &left, NULL, 0);
}

int context_context_data_get_double(context_data *data, const char *key, double *value)
{
    static const char *const *const kKeys[WATCH_COUNTS] = {
        &CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT,
        &CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT,
        &CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT,
        &CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE,
        &CONTEXT_PEDOMETER_CUMULATIVE_CALORIE,
        &CONTEXT_PEDOMETER_SPEED,
    };
    for (int i = 0; data != NULL && i < WATCH_COUNTS; ++i) {
        if (strcmp(key, *kKeys[i]) == 0) {
            *value = World()->mCounts[i];
            return 0;
        }
    }
    return -1;
}
