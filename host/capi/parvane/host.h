/**
 * libparvane-host: the phone's side of the accessory link of a Parvane watch, for C and whatever calls C.
 *
 * A parvane_session is the protocol without a socket, a clock or a thread: it is told what happens, and
 * says what is to be sent, what there is to tell and when to come back. A parvane_watch is a session with
 * the socket of a watch on this machine, for a poll loop:
 *
 *     parvane_watch *watch;
 *     parvane_watch_new(NULL, NULL, &watch);
 *     parvane_session *session = parvane_watch_session(watch);
 *     parvane_session_follow(session, PARVANE_HEART_RATE, 0, NULL);
 *     for (;;) {
 *         parvane_event event;
 *         parvane_watch_process(watch);
 *         while (parvane_session_next_event(session, &event, sizeof event) > 0) { ... }
 *         struct pollfd link = {parvane_watch_fd(watch), parvane_watch_poll_events(watch), 0};
 *         poll(&link, 1, parvane_watch_timeout_ms(watch));
 *     }
 *
 * Rules that hold for every function:
 *
 * - It returns at once: nothing waits. Nothing is called back, no thread is started, no signal handled.
 * - A result of type int below 0 is a PARVANE_E number, and then nothing has changed. A handle or a
 *   pointer that must not be null and is gives PARVANE_EINVAL.
 * - A handle is used by one thread at a time; different handles may be used by different threads.
 * - Pointers that are passed in are borrowed for the call. What comes back belongs to the caller only
 *   where it says so.
 * - Texts are UTF-8, lines for people, and end with a zero byte. The library writes none anywhere.
 * - A `now` that is null is the clocks of the system.
 * - Structures grow at their end only. Where a size is passed, it is sizeof of the caller's: what a later
 *   version of the library has beyond that is left out.
 *
 * docs/phone.md has the contract of a session, docs/wire-format.md that of the packets.
 */
#ifndef PARVANE_HOST_H
#define PARVANE_HOST_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define PARVANE_API __attribute__((visibility("default")))
#else
#define PARVANE_API
#endif

#ifdef __cplusplus
#define PARVANE_NOEXCEPT noexcept
extern "C" {
#else
#define PARVANE_NOEXCEPT
#endif

/** Why a function has failed. */
enum {
    PARVANE_EINVAL = -1,     /**< an argument is not allowed */
    PARVANE_ENOMEM = -2,     /**< there is no memory */
    PARVANE_EROOM = -3,      /**< what was given has no room for the result */
    PARVANE_EMALFORMED = -4, /**< bytes, or a stored text, are not what they should be */
    PARVANE_EFAILED = -5     /**< the system has failed in some other way */
};

/** The sensors of a watch; other numbers from 0 to 255 may occur in packets. */
enum { PARVANE_ACTIVITY = 1, PARVANE_STEPS = 2, PARVANE_HEART_RATE = 3, PARVANE_WORN = 4 };

/** The value of a reading of the activity. */
enum {
    PARVANE_STILL = 0, /**< or another one, or none known */
    PARVANE_WALKING = 1,
    PARVANE_RUNNING = 2,
    PARVANE_WRIST_GESTURE = 3
};

/** "0.2.0": of the library that is running. Static. */
PARVANE_API const char *parvane_host_version(void) PARVANE_NOEXCEPT;

/** A line for people about a PARVANE_E number, and for any other number, too. Static. */
PARVANE_API const char *parvane_error_text(int error) PARVANE_NOEXCEPT;

/** "activity", "steps", "hr" or "wear"; "unknown" for any other number. Static. */
PARVANE_API const char *parvane_sensor_name(int sensor) PARVANE_NOEXCEPT;

/** Releases a text that the library has handed over; null is allowed. */
PARVANE_API void parvane_free(char *text) PARVANE_NOEXCEPT;

/* ---- packets ------------------------------------------------------------------------------------ */

/** The kinds of packets, as docs/vectors/README.md names them. */
enum {
    PARVANE_PACKET_LIST = 1, /**< from the phone */
    PARVANE_PACKET_MEASURE = 2,
    PARVANE_PACKET_START = 3,
    PARVANE_PACKET_STOP = 4,
    PARVANE_PACKET_LIST_HEADER = 5, /**< from the watch */
    PARVANE_PACKET_ENTRY = 6,
    PARVANE_PACKET_READING = 7,
    PARVANE_PACKET_STOP_ACK = 8,
    PARVANE_PACKET_OPTION = 9
};

/** A packet, with the members that its kind has; the others are 0. */
typedef struct parvane_packet
{
    int32_t kind;
    int32_t command; /**< reading: 2 measured, 3 started */
    int32_t flags;   /**< 0 to 3 */
    int32_t code;    /**< requests: 1 when the code bit is set, else 0 */
    int32_t sensor;  /**< 0 to 255 */
    int32_t format;  /**< start: 0 to 255, of which those above 5 are the default of the watch */
    uint8_t address[6];
    uint8_t has_address; /**< list header: 0 when the watch does not know its address */
    uint8_t count;       /**< list header: entries that follow */
    uint8_t position;    /**< entry: from 1 */
    uint8_t available;   /**< entry: 1 yes, 0 no */
    int16_t reserved;    /**< entry */
    int32_t delay_ms;    /**< entry: between two readings */
    float largest;       /**< entry: in the unit of the sensor's readings */
    float resolution;
    float smallest;
    uint32_t time_ms; /**< reading: since 1970-01-01 UTC modulo 2^32; 0: not known */
    float value;      /**< reading: beats a minute, steps, an activity, 1 worn or 0 not */
} parvane_packet;

/** The most bytes that a packet may have, and those that a request has at most. */
#define PARVANE_MAX_PACKET 65531
#define PARVANE_MAX_REQUEST 5

/**
 * Makes the bytes of a packet of the phone.
 *
 * @param size  of `bytes`
 * @return their number, 4 or 5; PARVANE_EINVAL for a packet that no phone sends; PARVANE_EROOM
 */
PARVANE_API int parvane_encode(const parvane_packet *packet, uint8_t *bytes,
                               size_t size) PARVANE_NOEXCEPT;

/**
 * Reads a packet of the watch, whole.
 *
 * @param bytes        may be null when `size` is 0
 * @param packet       filled when it is one
 * @param packet_size  sizeof *packet
 * @param why          null, or room for a line that says what is wrong with the bytes, cut if need be
 * @param why_size     of `why`
 * @return 0; PARVANE_EMALFORMED when it is none
 */
PARVANE_API int parvane_decode(const uint8_t *bytes, size_t size, parvane_packet *packet,
                               size_t packet_size, char *why, size_t why_size) PARVANE_NOEXCEPT;

/** The time of a reading in milliseconds since 1970-01-01 UTC: of those that fit `time_ms`, the one nearest to `now_ms`. */
PARVANE_API int64_t parvane_full_time_ms(uint32_t time_ms, int64_t now_ms) PARVANE_NOEXCEPT;

/* ---- a session ---------------------------------------------------------------------------------- */

/** The protocol with one watch. */
typedef struct parvane_session parvane_session;

/** A point in time by both clocks. */
typedef struct parvane_moment
{
    int64_t
        steady_us; /**< microseconds of a clock that never goes back; from where does not matter */
    int64_t wall_ms; /**< milliseconds since 1970-01-01 UTC */
} parvane_moment;

/** What a session is made with. Set `size`, and everything else to 0 for what is usual. */
typedef struct parvane_options
{
    size_t size; /**< sizeof(parvane_options) */
    /** What parvane_session_save_steps() has given, of the same watch; null: nothing is known yet. */
    const char *steps;
    /** 1: days begin by `zone_offset_s`; 0: by `zone`, or the time zone of this process. */
    int32_t has_zone;
    int32_t zone_offset_s; /**< how far local time is ahead of UTC, in seconds; at most a day */
    int32_t timeout_ms;  /**< for the answer to each request; 0: what the sensor takes, with room */
    int32_t first_flags; /**< 1 to 3, of the first request; 0: 1 */
    /** 1: a link counts at once. 0: when the watch has answered on it, which it is asked to. */
    int32_t trusts_link;
    /** 1: totals are told as they come. 0: steps are asked for until those really walked are known. */
    int32_t counts_no_steps;
    /**
     * Null, or the time zone by which days begin, through its summer times, whatever the zone of this process is:
     * a name of the system's data base such as "Europe/Zurich"; `has_zone` is 0 then. $TZDIR, else
     * /usr/share/zoneinfo, has the data base.
     */
    const char *zone;
} parvane_options;

/**
 * Makes a session without a link, which wants one.
 *
 * @param options  may be null: all as usual
 * @param session  receives it; the caller's, for parvane_session_free()
 * @return 0; PARVANE_EINVAL, also for a `zone` that this machine does not have; PARVANE_EMALFORMED when `steps`
 *         is damaged or of another version, or the file of `zone`
 */
PARVANE_API int parvane_session_new(const parvane_options *options,
                                    parvane_session **session) PARVANE_NOEXCEPT;

/** Null is allowed. That of a watch is freed with the watch alone. */
PARVANE_API void parvane_session_free(parvane_session *session) PARVANE_NOEXCEPT;

/* What happens. Not for the session of a parvane_watch, which does this itself. */

/**
 * There is a link.
 *
 * @param run  a name of the run of the watch's service, up to 64 printable characters without blanks, the
 *             same only while it was not restarted; null or empty: not known
 */
PARVANE_API int parvane_session_connected(parvane_session *session, const char *run,
                                          const parvane_moment *now) PARVANE_NOEXCEPT;

/** The link is gone, or could not be made. @param why  one line for people; may be null */
PARVANE_API int parvane_session_lost(parvane_session *session, const char *why,
                                     const parvane_moment *now) PARVANE_NOEXCEPT;

/** A packet of the link, whole, whatever its bytes. @param bytes  may be null when `size` is 0 */
PARVANE_API int parvane_session_take(parvane_session *session, const uint8_t *bytes, size_t size,
                                     const parvane_moment *now) PARVANE_NOEXCEPT;

/** Time has passed, and every packet that was there was taken. To be called before each wait. */
PARVANE_API int parvane_session_advance(parvane_session *session,
                                        const parvane_moment *now) PARVANE_NOEXCEPT;

/** 1: there should be a link, make it or keep it; 0: close it, and wait. */
PARVANE_API int parvane_session_wants_link(const parvane_session *session) PARVANE_NOEXCEPT;

/**
 * Takes the next packet that is to be sent.
 *
 * @param bytes  room for PARVANE_MAX_REQUEST
 * @return its bytes; 0 when there is none; PARVANE_EROOM
 */
PARVANE_API int parvane_session_next_packet(parvane_session *session, uint8_t *bytes,
                                            size_t size) PARVANE_NOEXCEPT;

/** Milliseconds until parvane_session_advance() is to be called at the latest; -1: not before something happens. */
PARVANE_API int parvane_session_timeout_ms(const parvane_session *session,
                                           const parvane_moment *now) PARVANE_NOEXCEPT;

/* What is wanted; for the session of a watch as well. */

/**
 * Asks for one reading: ends with one event, PARVANE_EVENT_READING or PARVANE_EVENT_FAILED. The heart rate
 * takes 15 s, the worn state at most 3 s.
 *
 * @param sensor      1 to 4
 * @param timeout_ms  0: as in the options
 * @param request     receives the number that the event has; may be null
 */
PARVANE_API int parvane_session_measure(parvane_session *session, int sensor, int timeout_ms,
                                        const parvane_moment *now,
                                        uint64_t *request) PARVANE_NOEXCEPT;

/** Asks for the sensors: ends with PARVANE_EVENT_LIST or PARVANE_EVENT_FAILED. As parvane_session_measure(). */
PARVANE_API int parvane_session_list(parvane_session *session, int timeout_ms,
                                     const parvane_moment *now, uint64_t *request) PARVANE_NOEXCEPT;

/** Follows a sensor no more: ends with PARVANE_EVENT_STOPPED or PARVANE_EVENT_FAILED. As parvane_session_measure(). */
PARVANE_API int parvane_session_stop(parvane_session *session, int sensor, int timeout_ms,
                                     const parvane_moment *now, uint64_t *request) PARVANE_NOEXCEPT;

/**
 * Readings of a sensor from now on, through every lost link. Activity and steps come as the watch pushes
 * them, heart rate and worn state are measured again and again.
 *
 * @param every_ms  between two of those; 0: as often as they can be measured
 */
PARVANE_API int parvane_session_follow(parvane_session *session, int sensor, int every_ms,
                                       const parvane_moment *now) PARVANE_NOEXCEPT;

/* What comes of it; for the session of a watch as well. */

/** The kinds of events. Later versions may have more, which are to be passed by. */
enum {
    PARVANE_EVENT_LINKED = 1,         /**< the watch is there */
    PARVANE_EVENT_LOST = 2,           /**< that is so no more */
    PARVANE_EVENT_ATTEMPT_FAILED = 3, /**< to be linked; the next one comes after `pause_ms` */
    PARVANE_EVENT_READING = 4,
    PARVANE_EVENT_LIST = 5,
    PARVANE_EVENT_STOPPED = 6,
    PARVANE_EVENT_FAILED = 7,  /**< a request, or with `request` 0 a sensor that is followed */
    PARVANE_EVENT_NONSENSE = 8 /**< a packet that is none */
};

/** Why something does not come. */
enum {
    PARVANE_NO_ANSWER = 1,  /**< in time */
    PARVANE_NOT_LINKED = 2, /**< in time: it was never sent */
    PARVANE_LINK_LOST = 3,  /**< while the answer was awaited */
    PARVANE_MALFORMED = 4,  /**< what the watch sent */
    PARVANE_UNSUPPORTED = 5 /**< the watch has no such sensor */
};

/** Whether the watch was worn, as far as it was told around a reading. */
enum { PARVANE_WORN_UNKNOWN = 0, PARVANE_WORN_YES = 1, PARVANE_WORN_NO = 2 };

/** What is known of the steps of a local day: those really walked. */
typedef struct parvane_day
{
    int32_t date;     /**< days since 1970-01-01, of the local calendar */
    int32_t is_exact; /**< 1: they are all of `since_ms` to `until_ms`; 0: at least so many */
    int64_t steps;
    int64_t since_ms; /**< since 1970-01-01 UTC */
    int64_t until_ms;
    int32_t is_from_midnight; /**< 1: `since_ms` is the beginning of the day */
    int32_t has_lost;         /**< 1: a stretch was lost, so it does not become exact any more */
} parvane_day;

/** A reading, and what it is worth. */
typedef struct parvane_reading
{
    int32_t sensor;
    float
        value; /**< beats a minute, an activity, 1 worn or 0 not; of the steps the total on the wire */
    int64_t at_ms;       /**< when it was sent, by the clock of the phone, since 1970-01-01 UTC */
    int64_t watch_ms;    /**< its time by the clock of the watch; 0: the watch knows none */
    int32_t has_value;   /**< 0: it says that there is no usable one */
    int32_t worn;        /**< PARVANE_WORN_... */
    int32_t is_unbroken; /**< 1: the link has been there since, without a gap */
    int32_t is_settled;  /**< steps: 0 when they are asked for once more, as this does not tell */
    int32_t has_day;     /**< steps: whether `day` is known */
    int32_t padding;
    parvane_day day;
} parvane_reading;

/** Something that a session tells. Members that its kind does not have are 0, or empty. */
typedef struct parvane_event
{
    int32_t kind;
    int32_t failure;  /**< why, PARVANE_NO_ANSWER and so on: LOST, ATTEMPT_FAILED, FAILED */
    uint64_t request; /**< that it ends; 0: none */
    int32_t sensor;   /**< READING, STOPPED, FAILED; 0: none */
    int32_t pause_ms; /**< ATTEMPT_FAILED */
    /** LOST, ATTEMPT_FAILED, FAILED, NONSENSE: a line, the session's until the next event is taken. */
    const char *text;
    parvane_reading reading; /**< READING */
    /** LIST: the header, and the entries after it, the session's until the next event is taken. */
    const parvane_packet *packets;
    size_t packet_count;
} parvane_event;

/**
 * Takes the next event.
 *
 * @param size  sizeof *event
 * @return 1; 0 when there is none
 */
PARVANE_API int parvane_session_next_event(parvane_session *session, parvane_event *event,
                                           size_t size) PARVANE_NOEXCEPT;

/** Whether the watch is there: 1 after PARVANE_EVENT_LINKED until PARVANE_EVENT_LOST, else 0. */
PARVANE_API int parvane_session_is_linked(const parvane_session *session) PARVANE_NOEXCEPT;

/**
 * The latest reading of a sensor. Its `is_settled`, `has_day` and `day` are 0, and so is `watch_ms`.
 *
 * @param size  sizeof *reading
 * @return 1; 0 before the first one
 */
PARVANE_API int parvane_session_latest(const parvane_session *session, int sensor,
                                       parvane_reading *reading, size_t size) PARVANE_NOEXCEPT;

/**
 * "72 bpm, 4 s ago, worn", or "no reading: the watch is not worn": the latest reading in a line. The caller's, for
 * parvane_free(); null before the first one, and without memory.
 */
PARVANE_API char *parvane_session_latest_text(const parvane_session *session, int sensor,
                                              const parvane_moment *now) PARVANE_NOEXCEPT;

/**
 * The days of which steps are known, the latest `count` of them, by date.
 *
 * @param days  may be null when `count` is 0
 * @return how many there are, which may be more than `count`
 */
PARVANE_API int parvane_session_days(const parvane_session *session, parvane_day *days,
                                     size_t count) PARVANE_NOEXCEPT;

/**
 * All that is known of the steps as text, for the options of a later session with the same watch. To be kept
 * whenever it has changed: no step is counted twice then, and none of the day is forgotten.
 *
 * The caller's, for parvane_free(); null without memory.
 */
PARVANE_API char *parvane_session_save_steps(const parvane_session *session) PARVANE_NOEXCEPT;

/* ---- a watch on this machine -------------------------------------------------------------------- */

/** A session, and the socket that its watch has on this machine. */
typedef struct parvane_watch parvane_watch;

/**
 * Makes one. No connection is made before parvane_watch_process().
 *
 * @param path     of the socket, 1 to 107 bytes; null: $PARVANE_LINK, else link.sock in $RUNTIME_DIRECTORY,
 *                 in $XDG_RUNTIME_DIR/parvane, or in /run/parvane
 * @param options  may be null: all as usual
 * @param watch    receives it; the caller's, for parvane_watch_free()
 * @return 0; PARVANE_EINVAL; PARVANE_EMALFORMED as of parvane_session_new()
 */
PARVANE_API int parvane_watch_new(const char *path, const parvane_options *options,
                                  parvane_watch **watch) PARVANE_NOEXCEPT;

/** Closes the connection as well; null is allowed. */
PARVANE_API void parvane_watch_free(parvane_watch *watch) PARVANE_NOEXCEPT;

/** The session; it belongs to the watch, and is null for a watch that is. */
PARVANE_API parvane_session *parvane_watch_session(parvane_watch *watch) PARVANE_NOEXCEPT;

/** The descriptor to wait for; it belongs to the watch, and may be another one after each process. -1: there is none now. */
PARVANE_API int parvane_watch_fd(const parvane_watch *watch) PARVANE_NOEXCEPT;

/** What to wait for on it: POLLIN, and POLLOUT where something waits for room. */
PARVANE_API short parvane_watch_poll_events(const parvane_watch *watch) PARVANE_NOEXCEPT;

/** Milliseconds until parvane_watch_process() is to be called at the latest, 0: at once; -1: not before the descriptor is ready. */
PARVANE_API int parvane_watch_timeout_ms(const parvane_watch *watch) PARVANE_NOEXCEPT;

/**
 * Reads what is there, does what is due, connects where there should be a link, and sends. Then events are to
 * be taken. A link that is lost or cannot be made is an event, no failure. Of two calls in a row one may leave
 * out the reading, when it has sent what was asked for.
 *
 * @return 0
 */
PARVANE_API int parvane_watch_process(parvane_watch *watch) PARVANE_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
