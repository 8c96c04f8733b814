/**
 * @file
 * A provider of the platform that tells what the service asks of it: every call and every log line is a
 * line on standard output. In place of a main loop it plays one day in the life of a watch. Timers and
 * the clock are its own too, so that nothing waits.
 */

#define _POSIX_C_SOURCE 200809L

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <platform/bluetooth.h>
#include <platform/context_manager.h>
#include <platform/dlog.h>
#include <platform/power.h>
#include <platform/preference.h>
#include <platform/service_app.h>
#include <platform/tal_client.h>
#include <platform/vconf.h>

typedef int (*timer_function)(void *data);
unsigned g_timeout_add(unsigned interval, timer_function function, void *data);
time_t time(time_t *result);

/* ---- time ---- */

static time_t now = 1400000000; /* 2014-05-13 16:53:20 UTC */

time_t time(time_t *result)
{
    if (result != NULL) {
        *result = now;
    }
    return now;
}

static struct
{
    timer_function function;
    void *data;
} timers[8];
static unsigned timer_count;

unsigned g_timeout_add(unsigned interval, timer_function function, void *data)
{
    printf("g_timeout_add %u\n", interval);
    timers[timer_count].function = function;
    timers[timer_count].data = data;
    return ++timer_count;
}

static void fire_timers(time_t seconds)
{
    now += seconds;
    const unsigned due = timer_count;
    timer_count = 0;
    for (unsigned i = 0; i < due; ++i) {
        printf("timer returns %d\n", timers[i].function(timers[i].data));
    }
}

/* ---- log ---- */

int __dlog_print(int log_id, int priority, const char *tag, const char *format, ...)
{
    printf("log %d %d %s: ", log_id, priority, tag);
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    printf("\n");
    return 0;
}

/* ---- preferences ---- */

static bool has_requested;
static bool requested;
static char *value_text;
static bool has_time;
static int time_value;

int preference_get_boolean(const char *key, bool *value)
{
    printf("preference_get_boolean %s\n", key);
    if (!has_requested) {
        return -126;
    }
    *value = requested;
    return 0;
}

int preference_set_boolean(const char *key, bool value)
{
    printf("preference_set_boolean %s %d\n", key, value);
    has_requested = true;
    requested = value;
    return 0;
}

int preference_get_int(const char *key, int *value)
{
    printf("preference_get_int %s\n", key);
    if (!has_time) {
        return -126;
    }
    *value = time_value;
    return 0;
}

int preference_set_int(const char *key, int value)
{
    printf("preference_set_int %s %d\n", key, value);
    has_time = true;
    time_value = value;
    return 0;
}

int preference_get_string(const char *key, char **value)
{
    printf("preference_get_string %s\n", key);
    if (value_text == NULL) {
        return -126;
    }
    *value = strdup(value_text);
    return 0;
}

int preference_set_string(const char *key, const char *value)
{
    printf("preference_set_string %s \"%s\"\n", key, value);
    free(value_text);
    value_text = strdup(value);
    return 0;
}

int preference_is_existing(const char *key, bool *existing)
{
    printf("preference_is_existing %s\n", key);
    *existing = value_text != NULL;
    return 0;
}

/* ---- context manager ---- */

const char *const CONTEXT_HRM_SPO2 = "other spo2";
const char *const CONTEXT_HRM_HEART_RATE = "other heart rate";
const char *const CONTEXT_HRM_PEAK_TO_PEAK = "other peak to peak";
const char *const CONTEXT_MOTION_ACTION = "other action";
const char *const CONTEXT_ACTIVITY_STATUS = "other status";
const char *const CONTEXT_ACTIVITY_ACCURACY = "other accuracy";
const char *const CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER = "other filter";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT = "other total";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE = "other distance";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_CALORIE = "other calorie";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT = "other walk";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT = "other run";
const char *const CONTEXT_PEDOMETER_SPEED = "other speed";
const char *const CONTEXT_PEDOMETER_GENDER = "other gender";
const char *const CONTEXT_PEDOMETER_HEIGHT = "other height";
const char *const CONTEXT_PEDOMETER_WEIGHT = "other weight";

struct context_data
{
    const char *key;
    double value;
    int64_t milliseconds;
};

struct context_option
{
    int values[8];
    unsigned count;
};

static struct
{
    context_changed_cb callback;
    void *user_data;
} subscriptions[32];
static context_changed_cb query_callback;
static void *query_user_data;

int context_set_changed_callback(int item, ContextManagerOptionType *option,
                                 context_changed_cb callback, void *user_data, int *request_id)
{
    printf("context_set_changed_callback %d", item);
    for (unsigned i = 0; option != NULL && i < option->count; ++i) {
        printf(" %d", option->values[i]);
    }
    printf("\n");
    subscriptions[item].callback = callback;
    subscriptions[item].user_data = user_data;
    *request_id = 100 + item;
    return 0;
}

int context_unset_changed_callback(int item)
{
    printf("context_unset_changed_callback %d\n", item);
    subscriptions[item].callback = NULL;
    return 0;
}

int context_get_context(int item, ContextManagerOptionType *option, context_changed_cb callback,
                        void *user_data, int *request_id)
{
    printf("context_get_context %d %s\n", item, option == NULL ? "no option" : "option");
    query_callback = callback;
    query_user_data = user_data;
    *request_id = 200 + item;
    return 0;
}

ContextManagerOptionType *context_option_new(void)
{
    return calloc(1, sizeof(ContextManagerOptionType));
}

int context_option_add_value_int(ContextManagerOptionType **option, const char *key, int value)
{
    printf("context_option_add_value_int %s %d\n", key, value);
    (*option)->values[(*option)->count++] = value;
    return 0;
}

int context_option_add_value_double(ContextManagerOptionType **option, const char *key,
                                    double value)
{
    printf("context_option_add_value_double %s %g\n", key, value);
    return *option == NULL ? -1 : 0;
}

int context_context_data_get_int(context_data *data, const char *key, int *value)
{
    if (key != data->key) {
        return -1;
    }
    *value = (int)data->value;
    return 0;
}

int context_context_data_get_double(context_data *data, const char *key, double *value)
{
    if (key != data->key) {
        return -1;
    }
    *value = data->value;
    return 0;
}

int context_context_data_get_timestamp(context_data *data, int64_t *milliseconds)
{
    *milliseconds = data->milliseconds;
    return 0;
}

static context_data *reading(const char *key, double value)
{
    context_data *const data = calloc(1, sizeof(context_data));
    if (data == NULL) {
        abort();
    }
    data->key = key;
    data->value = value;
    data->milliseconds = (int64_t)now * 1000;
    return data;
}

static void deliver(int item, const char *key, double value)
{
    printf("-- item %d: %s = %g\n", item, key, value);
    if (subscriptions[item].callback == NULL) {
        printf("nobody is subscribed\n");
        return;
    }
    subscriptions[item].callback(0, item, reading(key, value), subscriptions[item].user_data,
                                 100 + item);
}

static void answer_query(int item, const char *key, double value)
{
    printf("-- answer of item %d: %s = %g\n", item, key, value);
    query_callback(0, item, reading(key, value), query_user_data, 200 + item);
}

/* ---- key-value store ---- */

static int conn_status = 1;
static vconf_changed_cb conn_status_callback;
static void *conn_status_user_data;

int vconf_get_int(const char *key, int *value)
{
    printf("vconf_get_int %s\n", key);
    *value = conn_status;
    return 0;
}

int vconf_notify_key_changed(const char *key, vconf_changed_cb callback, void *user_data)
{
    printf("vconf_notify_key_changed %s\n", key);
    conn_status_callback = callback;
    conn_status_user_data = user_data;
    return 0;
}

static void change_conn_status(int value)
{
    printf("-- link status %d\n", value);
    conn_status = value;
    conn_status_callback(NULL, conn_status_user_data);
}

/* ---- Bluetooth, power ---- */

int bt_initialize(void)
{
    printf("bt_initialize\n");
    return 0;
}

int bt_deinitialize(void)
{
    printf("bt_deinitialize\n");
    return 0;
}

int bt_adapter_get_address(char **address)
{
    printf("bt_adapter_get_address\n");
    *address = strdup("01:23:45:67:89:AB");
    return 0;
}

int power_lock_state(int state, int timeout_ms)
{
    printf("power_lock_state %d %d\n", state, timeout_ms);
    return 0;
}

/* ---- accessory link ---- */

static tal_notifications link;
static unsigned failing_registrations = 2;

int registerNotifications(tal_notifications notifications)
{
    printf("registerNotifications %d %d %d\n", notifications.unused7(7), notifications.unused8(8),
           notifications.unused9(9));
    link = notifications;
    return 0;
}

int deregisterNotifications(void)
{
    printf("deregisterNotifications\n");
    return 0;
}

int registerServiceAgent(tal_service_descriptor *service)
{
    printf("registerServiceAgent %s %s %u %u, %u channel: %u %u %u\n", service->profileId,
           service->serviceName, (unsigned)service->field8, (unsigned)service->field12,
           (unsigned)service->channelCount, (unsigned)service->channels->id,
           (unsigned)service->channels->field2, (unsigned)service->channels->field4);
    if (failing_registrations > 0) {
        --failing_registrations;
        return -1;
    }
    return 0;
}

int deRegisterServiceAgent(int agentId)
{
    printf("deRegisterServiceAgent %d\n", agentId);
    return 0;
}

int findPeerAgent(int agentId)
{
    printf("findPeerAgent %d\n", agentId);
    return 0;
}

static char peer[] = "peer";
static char detail[] = "detail";

int acceptServiceConnection(int agentId, int connectionId, void *peerArgument, void *detailArgument)
{
    printf("acceptServiceConnection %d %d %s %s\n", agentId, connectionId,
           (const char *)peerArgument, (const char *)detailArgument);
    return 0;
}

int terminateServiceConnection(int connectionId)
{
    printf("terminateServiceConnection %d\n", connectionId);
    return 0;
}

int sendData(int connectionId, int channelId, int size, const void *data)
{
    printf("sendData %d %d:", connectionId, channelId);
    for (int i = 0; i < size; ++i) {
        printf(" %02X", ((const unsigned char *)data)[i]);
    }
    printf("\n");
    return connectionId == -1 ? 2 : 0;
}

static void receive(unsigned size, unsigned command, unsigned sensor, unsigned format)
{
    const unsigned char packet[] = {(unsigned char)command, 0xFF, 0xFF, (unsigned char)sensor,
                                    (unsigned char)format};
    printf("-- host: %02X, sensor %u, %u bytes\n", command, sensor, size);
    link.dataReceived(5, 143, (int)size, packet);
}

/* ---- service framework ---- */

void service_app_exit(void)
{
    printf("service_app_exit\n");
}

void app_efl_exit(void)
{
    printf("app_efl_exit\n");
}

static void play_link_up(void)
{
    printf("-- two registrations have failed by now\n");
    fire_timers(0);
    fire_timers(0);
    link.registerServiceAgentConfirm(0, 9);
    link.serviceConnectionIndication(9, 5, peer, detail);
    link.peerAgent(9, peer, 3);
    link.peerAgent(9, peer, 1);
    link.peerAgent(9, peer, 0);
}

static void play_requests(void)
{
    receive(1, 0x01, 0, 0);
    receive(4, 0x22, 1, 0);
    receive(5, 0x13, 1, 2);
    deliver(23, CONTEXT_ACTIVITY_STATUS, 3);
    receive(4, 0x04, 1, 0);
    deliver(23, CONTEXT_ACTIVITY_STATUS, 2);
    receive(4, 0x02, 1, 0);
    receive(4, 0x05, 1, 0);
    receive(4, 0x02, 9, 0);
    receive(3, 0x02, 1, 0);
}

static void play_heart(void)
{
    receive(4, 0x32, 3, 0);
    receive(4, 0x03, 3, 0);
    deliver(7, CONTEXT_HRM_HEART_RATE, 72);
    deliver(7, CONTEXT_HRM_HEART_RATE, -1);
    receive(4, 0x12, 4, 0);
    deliver(7, CONTEXT_HRM_HEART_RATE, -3);
    deliver(7, CONTEXT_HRM_HEART_RATE, 70);
    fire_timers(15);
}

static void play_steps(void)
{
    receive(4, 0x22, 2, 0);
    deliver(2, CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 1000);
    deliver(2, CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 1010);
    fire_timers(0);
    answer_query(2, CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 1015.9);
    receive(4, 0x12, 2, 0);
    answer_query(2, CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE, 1.5);
    now += 86400;
    deliver(2, CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 1003);
}

static void play_link_down(void)
{
    receive(4, 0x03, 1, 0);
    link.serviceTerminated(5);
    change_conn_status(0);
    change_conn_status(0);
    deliver(2, CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 1004);
    change_conn_status(1);
    change_conn_status(1);
    link.registerServiceAgentConfirm(0, 10);
    link.serviceCreateConfirm(10, 6, peer, 1);
    link.serviceCreateConfirm(10, 6, peer, 0);
    receive(4, 0x04, 1, 0);
}

int service_app_main(int argc, char **argv, service_app_callbacks *callbacks, void *user_data)
{
    setvbuf(stdout, NULL, _IOLBF, 0);
    printf("service_app_main %d %s\n", argc, argv[argc] == NULL ? "arguments" : "no arguments");
    printf("create returns %d\n", callbacks->create(user_data));
    callbacks->app_control(NULL, user_data);
    play_link_up();
    play_requests();
    play_heart();
    play_steps();
    play_link_down();
    callbacks->low_memory(user_data);
    callbacks->low_battery(user_data);
    callbacks->terminate(user_data);
    free(value_text);
    return -5;
}
