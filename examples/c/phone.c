/* A phone in C: phone list | measure | follow SECONDS. Its watch is that of this machine.
 *
 * cc phone.c $(pkg-config --cflags --libs parvane-host)
 */
#define _POSIX_C_SOURCE 200809L
#include <inttypes.h>
#include <parvane/host.h>
#include <poll.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static int64_t now_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static void print_list(const parvane_event *event)
{
    for (size_t i = 1; i < event->packet_count; ++i) { /* the first one is the header */
        const parvane_packet *entry = &event->packets[i];
        printf("%s: up to %g, every %g s\n", parvane_sensor_name(entry->sensor),
               (double)entry->largest, entry->delay_ms / 1000.0);
    }
}

static void print_reading(parvane_session *session, const parvane_reading *reading)
{
    if (reading->sensor == PARVANE_STEPS) {
        if (reading->is_settled && reading->has_day) {
            printf("steps: %s%" PRId64 " today\n", reading->day.is_exact ? "" : "at least ",
                   reading->day.steps);
        }
        return;
    }
    char *text = parvane_session_latest_text(session, reading->sensor, NULL);
    printf("%s: %s\n", parvane_sensor_name(reading->sensor), text ? text : "?");
    parvane_free(text);
}

/** Prints an event. Returns whether it ends the request. */
static bool take(parvane_session *session, const parvane_event *event, uint64_t request)
{
    switch (event->kind) {
    case PARVANE_EVENT_LIST:
        print_list(event);
        break;
    case PARVANE_EVENT_READING:
        print_reading(session, &event->reading);
        break;
    case PARVANE_EVENT_LOST:
    case PARVANE_EVENT_ATTEMPT_FAILED:
    case PARVANE_EVENT_FAILED:
        fprintf(stderr, "phone: %s\n", event->text);
        break;
    default:
        break;
    }
    fflush(stdout);
    return request != 0 && event->request == request;
}

/** Carries on until the request ends, or the time is over. Returns whether the request was answered. */
static bool run(parvane_watch *watch, uint64_t request, int64_t end)
{
    parvane_session *session = parvane_watch_session(watch);
    while (now_ms() < end) {
        parvane_event event;
        parvane_watch_process(watch);
        while (parvane_session_next_event(session, &event, sizeof event) > 0) {
            if (take(session, &event, request)) {
                return event.kind != PARVANE_EVENT_FAILED;
            }
        }
        const int64_t left = end - now_ms();
        int timeout = parvane_watch_timeout_ms(watch);
        if (timeout < 0 || timeout > left) {
            timeout = left > 0 ? (int)left : 0;
        }
        struct pollfd link = {parvane_watch_fd(watch), parvane_watch_poll_events(watch), 0};
        poll(&link, 1, timeout);
    }
    return request == 0;
}

int main(int argc, char **argv)
{
    const char *command = argc > 1 ? argv[1] : "";
    const int64_t longest = now_ms() + 60000;
    parvane_watch *watch;
    int error = parvane_watch_new(NULL, NULL, &watch);
    if (error < 0) {
        fprintf(stderr, "phone: %s\n", parvane_error_text(error));
        return 1;
    }
    parvane_session *session = parvane_watch_session(watch);
    uint64_t request = 0;
    bool is_done = false;
    if (strcmp(command, "list") == 0) {
        parvane_session_list(session, 0, NULL, &request);
        is_done = run(watch, request, longest);
    } else if (strcmp(command, "measure") == 0) {
        parvane_session_measure(session, PARVANE_HEART_RATE, 0, NULL, &request);
        is_done = run(watch, request, longest);
    } else if (strcmp(command, "follow") == 0 && argc > 2) {
        for (int sensor = PARVANE_ACTIVITY; sensor <= PARVANE_WORN; ++sensor) {
            parvane_session_follow(session, sensor, 0, NULL);
        }
        is_done = run(watch, 0, now_ms() + atoi(argv[2]) * (int64_t)1000);
    } else {
        fprintf(stderr, "usage: phone list | measure | follow SECONDS\n");
    }
    parvane_watch_free(watch);
    return is_done ? 0 : 1;
}
