#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include <gtest/gtest.h>

#include <platform/bluetooth.h>
#include <platform/context_manager.h>
#include <platform/dlog.h>
#include <platform/power.h>
#include <platform/preference.h>
#include <platform/service_app.h>
#include <platform/tal_client.h>
#include <platform/vconf.h>

#include "Allocation.h"
#include "PlatformBlocks.h"

namespace Parvane {

namespace {

constexpr int kInvalid = -22;
constexpr int kNoSuchKey = -126;

// "name(a, b)"
template <typename... Arguments>
std::string Call(const char *name, const Arguments &...arguments)
{
    std::string list;
    ((list += (list.empty() ? "" : ", ") + std::string(arguments)), ...);
    return std::string(name) + "(" + list + ")";
}

std::string Text(int value)
{
    return std::to_string(value);
}

std::string Text(const char *text)
{
    return text == nullptr ? "null" : text;
}

std::string Text(const void *pointer)
{
    if (pointer == nullptr) {
        return "null";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

std::string Text(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

std::string Text(bool value)
{
    return value ? "true" : "false";
}

// ", {key=1, key=2}" for an option, nothing for none.
std::string OptionText(const ContextManagerOptionType *option)
{
    if (option == nullptr) {
        return "";
    }
    std::string list;
    for (std::size_t i = 0; i < option->count; ++i) {
        const context_entry &entry = option->entries[i];
        list += (list.empty() ? "" : ", ") + std::string(entry.key) + "=" +
                (entry.isDouble ? Text(entry.real) : Text(entry.integer));
    }
    return ", {" + list + "}";
}

std::size_t BlockSize(std::size_t head, std::size_t count)
{
    return head + count * sizeof(context_entry);
}

void SetKey(context_entry &entry, const char *key)
{
    std::snprintf(entry.key, sizeof entry.key, "%s", key);
}

const context_entry *Find(const context_data *data, const char *key)
{
    if (data == nullptr || key == nullptr) {
        return nullptr;
    }
    for (std::size_t i = 0; i < data->count; ++i) {
        if (std::strcmp(data->entries[i].key, key) == 0) {
            return &data->entries[i];
        }
    }
    return nullptr;
}

// Always moves the option: an old address that is still in use is found.
context_entry *AddEntry(ContextManagerOptionType **option, const char *key)
{
    const std::size_t count = (*option)->count;
    auto *const moved = static_cast<ContextManagerOptionType *>(
        std::calloc(1, BlockSize(sizeof(ContextManagerOptionType), count + 1)));
    std::memcpy(moved, *option, BlockSize(offsetof(ContextManagerOptionType, entries), count));
    std::free(*option);
    *option = moved;
    moved->count = count + 1;
    SetKey(moved->entries[count], key);
    return &moved->entries[count];
}

} // namespace

context_data *NewContextData(const ContextValues &values, std::optional<int64_t> milliseconds)
{
    auto *const data =
        static_cast<context_data *>(std::calloc(1, BlockSize(sizeof(context_data), values.size())));
    data->hasTimestamp = milliseconds.has_value();
    data->milliseconds = milliseconds.value_or(0);
    for (const auto &[key, value] : values) {
        context_entry &entry = data->entries[data->count];
        ++data->count;
        SetKey(entry, key.c_str());
        entry.isDouble = std::holds_alternative<double>(value);
        if (entry.isDouble) {
            entry.real = std::get<double>(value);
        } else {
            entry.integer = std::get<int>(value);
        }
    }
    return data;
}

int PlatformCalls::SetChangedCallback(ScriptedPlatform &platform, const std::string &call,
                                      ContextRequest request, int *requestId)
{
    const int result = platform.Answer("context_set_changed_callback", call);
    if (result != 0) {
        return result;
    }
    request.mRequestId = platform.mNextRequestId++;
    *requestId = request.mRequestId;
    platform.mSubscriptions[request.mItem] = request;
    platform.DeliverPending(request.mItem);
    return 0;
}

int PlatformCalls::UnsetChangedCallback(ScriptedPlatform &platform, int item)
{
    const int result = platform.Answer("context_unset_changed_callback",
                                       Call("context_unset_changed_callback", Text(item)));
    // No callback comes for the item from here on, whatever the result.
    platform.mSubscriptions.erase(item);
    auto &queries = platform.mQueries;
    queries.erase(
        std::remove_if(queries.begin(), queries.end(),
                       [item](const ContextRequest &query) { return query.mItem == item; }),
        queries.end());
    return result;
}

int PlatformCalls::GetContext(ScriptedPlatform &platform, const std::string &call,
                              ContextRequest request, int *requestId)
{
    const int result = platform.Answer("context_get_context", call);
    if (result == 0) {
        request.mRequestId = platform.mNextRequestId++;
        *requestId = request.mRequestId;
        platform.mQueries.push_back(request);
    }
    return result;
}

int PlatformCalls::RegisterNotifications(ScriptedPlatform &platform,
                                         tal_notifications notifications)
{
    const int result = platform.Answer("registerNotifications", Call("registerNotifications"));
    if (result == 0) {
        platform.mNotifications = notifications;
        platform.mHasNotifications = true;
    }
    return result;
}

int PlatformCalls::DeregisterNotifications(ScriptedPlatform &platform)
{
    const int result = platform.Answer("deregisterNotifications", Call("deregisterNotifications"));
    platform.mHasNotifications = false; // none comes from here on, whatever the result
    platform.mService = nullptr;
    return result;
}

int PlatformCalls::RegisterService(ScriptedPlatform &platform,
                                   const tal_service_descriptor *service)
{
    const int result = platform.Answer("registerServiceAgent", Call("registerServiceAgent"));
    if (result == 0) {
        platform.mService = service;
    }
    return result;
}

int PlatformCalls::DeregisterService(ScriptedPlatform &platform, int agentId)
{
    if (platform.mService != nullptr) {
        // The library may look at the record until now: it has to be there.
        EXPECT_STREQ("sensor_zolt", platform.mService->serviceName);
        EXPECT_EQ(143, platform.mService->channels->id);
    }
    const tal_service_descriptor *const ended = platform.mService;
    const int result =
        platform.Answer("deRegisterServiceAgent", Call("deRegisterServiceAgent", Text(agentId)));
    if (platform.mService == ended) { // not that of a registration from within
        platform.mService = nullptr;
    }
    return result;
}

int PlatformCalls::Send(ScriptedPlatform &platform, SentMessage message, const void *data)
{
    if (data != nullptr && message.mSize > 0) {
        const auto *const bytes = static_cast<const uint8_t *>(data);
        message.mBytes.assign(bytes, bytes + message.mSize);
    }
    const std::string call = Call("sendData", Text(message.mConnectionId), Text(message.mChannelId),
                                  Text(message.mSize));
    platform.mSent.push_back(std::move(message));
    return platform.Answer("sendData", call);
}

void PlatformCalls::AddLogLine(ScriptedPlatform &platform, LogLine line)
{
    if (platform.mPrintsLog) {
        std::fprintf(stderr, "%s\n", line.mText.c_str());
    }
    platform.mLog.push_back(std::move(line));
    platform.RunAnyCallHook();
}

int PlatformCalls::RunMainLoop(ScriptedPlatform &platform, const service_app_callbacks &callbacks,
                               void *userData)
{
    if (!platform.mMainLoop) {
        return 0;
    }
    return platform.mMainLoop(callbacks, userData);
}

} // namespace Parvane

using Parvane::Call;
using Parvane::PlatformCalls;
using Parvane::PlatformScope;
using Parvane::ScriptedPlatform;
using Parvane::Text;

extern "C" {

const char *const CONTEXT_HRM_SPO2 = "CONTEXT_HRM_SPO2";
const char *const CONTEXT_HRM_HEART_RATE = "CONTEXT_HRM_HEART_RATE";
const char *const CONTEXT_HRM_PEAK_TO_PEAK = "CONTEXT_HRM_PEAK_TO_PEAK";
const char *const CONTEXT_MOTION_ACTION = "CONTEXT_MOTION_ACTION";
const char *const CONTEXT_ACTIVITY_STATUS = "CONTEXT_ACTIVITY_STATUS";
const char *const CONTEXT_ACTIVITY_ACCURACY = "CONTEXT_ACTIVITY_ACCURACY";
const char *const CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER =
    "CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT =
    "CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE = "CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_CALORIE = "CONTEXT_PEDOMETER_CUMULATIVE_CALORIE";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT =
    "CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT =
    "CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT";
const char *const CONTEXT_PEDOMETER_SPEED = "CONTEXT_PEDOMETER_SPEED";
const char *const CONTEXT_PEDOMETER_GENDER = "CONTEXT_PEDOMETER_GENDER";
const char *const CONTEXT_PEDOMETER_HEIGHT = "CONTEXT_PEDOMETER_HEIGHT";
const char *const CONTEXT_PEDOMETER_WEIGHT = "CONTEXT_PEDOMETER_WEIGHT";

// Service framework.

int service_app_main(int argc, char ** /*argv*/, service_app_callbacks *callbacks, void *user_data)
{
    const PlatformScope scope;
    const int result =
        PlatformCalls::Answer("service_app_main", Call("service_app_main", Text(argc)));
    if (result != 0) {
        return result;
    }
    return PlatformCalls::RunMainLoop(ScriptedPlatform::Active(), *callbacks, user_data);
}

void service_app_exit(void)
{
    const PlatformScope scope;
    PlatformCalls::Answer("service_app_exit", Call("service_app_exit"));
}

void app_efl_exit(void)
{
    const PlatformScope scope;
    PlatformCalls::Answer("app_efl_exit", Call("app_efl_exit"));
}

// Log.

int __dlog_print(int log_id, int priority, const char *tag, const char *format, ...)
{
    const PlatformScope scope;
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    const Parvane::MallocPtr<char> owned(text);
    EXPECT_EQ(0, log_id) << "not the main log: " << owned.get();
    ScriptedPlatform *const platform = ScriptedPlatform::Find();
    if (platform == nullptr) {
        return length;
    }
    PlatformCalls::AddLogLine(*platform, {priority, tag, owned.get()});
    return PlatformCalls::LogResult(*platform, length);
}

// Preferences.

int preference_get_boolean(const char *key, bool *value)
{
    const PlatformScope scope;
    auto &values = PlatformCalls::Booleans(ScriptedPlatform::Active());
    const int result =
        PlatformCalls::Answer("preference_get_boolean", Call("preference_get_boolean", Text(key)));
    if (result != 0) {
        return result;
    }
    if (values.count(key) == 0) {
        return Parvane::kNoSuchKey;
    }
    *value = values[key];
    return 0;
}

int preference_set_boolean(const char *key, bool value)
{
    const PlatformScope scope;
    const int result = PlatformCalls::Answer(
        "preference_set_boolean", Call("preference_set_boolean", Text(key), Text(value)));
    if (result == 0) {
        PlatformCalls::Booleans(ScriptedPlatform::Active())[key] = value;
    }
    return result;
}

int preference_get_int(const char *key, int *value)
{
    const PlatformScope scope;
    auto &values = PlatformCalls::Integers(ScriptedPlatform::Active());
    const int result =
        PlatformCalls::Answer("preference_get_int", Call("preference_get_int", Text(key)));
    if (result != 0) {
        return result;
    }
    if (values.count(key) == 0) {
        return Parvane::kNoSuchKey;
    }
    *value = values[key];
    return 0;
}

int preference_set_int(const char *key, int value)
{
    const PlatformScope scope;
    const int result = PlatformCalls::Answer("preference_set_int",
                                             Call("preference_set_int", Text(key), Text(value)));
    if (result == 0) {
        PlatformCalls::Integers(ScriptedPlatform::Active())[key] = value;
    }
    return result;
}

int preference_get_string(const char *key, char **value)
{
    const PlatformScope scope;
    ScriptedPlatform &platform = ScriptedPlatform::Active();
    const int result =
        PlatformCalls::Answer("preference_get_string", Call("preference_get_string", Text(key)));
    if (result != 0) {
        *value = strdup("7 7 7 7 7 7"); // to be released, and not to be used
        return result;
    }
    if (PlatformCalls::IsNullString(platform, key)) {
        *value = nullptr;
        return 0;
    }
    auto &values = PlatformCalls::Strings(platform);
    if (values.count(key) == 0) {
        return Parvane::kNoSuchKey;
    }
    *value = strdup(values[key].c_str());
    return 0;
}

int preference_set_string(const char *key, const char *value)
{
    const PlatformScope scope;
    const int result = PlatformCalls::Answer("preference_set_string",
                                             Call("preference_set_string", Text(key), Text(value)));
    if (result == 0) {
        PlatformCalls::Strings(ScriptedPlatform::Active())[key] = value;
    }
    return result;
}

int preference_is_existing(const char *key, bool *existing)
{
    const PlatformScope scope;
    ScriptedPlatform &platform = ScriptedPlatform::Active();
    const int result =
        PlatformCalls::Answer("preference_is_existing", Call("preference_is_existing", Text(key)));
    if (result == 0) {
        *existing = PlatformCalls::Strings(platform).count(key) != 0 ||
                    PlatformCalls::Integers(platform).count(key) != 0 ||
                    PlatformCalls::Booleans(platform).count(key) != 0 ||
                    PlatformCalls::IsNullString(platform, key);
    }
    return result;
}

// Context manager.

int context_set_changed_callback(int item, ContextManagerOptionType *option,
                                 context_changed_cb callback, void *user_data, int *request_id)
{
    const PlatformScope scope;
    const std::string call =
        "context_set_changed_callback(" + Text(item) + Parvane::OptionText(option) + ")";
    return PlatformCalls::SetChangedCallback(ScriptedPlatform::Active(), call,
                                             {item, callback, user_data, -1}, request_id);
}

int context_unset_changed_callback(int item)
{
    const PlatformScope scope;
    return PlatformCalls::UnsetChangedCallback(ScriptedPlatform::Active(), item);
}

int context_get_context(int item, ContextManagerOptionType *option, context_changed_cb callback,
                        void *user_data, int *request_id)
{
    const PlatformScope scope;
    const std::string call =
        "context_get_context(" + Text(item) + Parvane::OptionText(option) + ")";
    return PlatformCalls::GetContext(ScriptedPlatform::Active(), call,
                                     {item, callback, user_data, -1}, request_id);
}

ContextManagerOptionType *context_option_new(void)
{
    const PlatformScope scope;
    if (PlatformCalls::Answer("context_option_new", Call("context_option_new")) != 0) {
        return nullptr;
    }
    return static_cast<ContextManagerOptionType *>(
        std::calloc(1, sizeof(ContextManagerOptionType)));
}

int context_option_add_value_int(ContextManagerOptionType **option, const char *key, int value)
{
    const PlatformScope scope;
    const int result =
        PlatformCalls::Answer("context_option_add_value_int",
                              Call("context_option_add_value_int", Text(key), Text(value)));
    if (result != 0) {
        return result;
    }
    if (option == nullptr || *option == nullptr) {
        return Parvane::kInvalid;
    }
    Parvane::AddEntry(option, key)->integer = value;
    return 0;
}

int context_option_add_value_double(ContextManagerOptionType **option, const char *key,
                                    double value)
{
    const PlatformScope scope;
    const int result =
        PlatformCalls::Answer("context_option_add_value_double",
                              Call("context_option_add_value_double", Text(key), Text(value)));
    if (result != 0) {
        return result;
    }
    if (option == nullptr || *option == nullptr) {
        return Parvane::kInvalid;
    }
    context_entry *const entry = Parvane::AddEntry(option, key);
    entry->isDouble = true;
    entry->real = value;
    return 0;
}

int context_context_data_get_int(context_data *data, const char *key, int *value)
{
    const PlatformScope scope;
    const int result = PlatformCalls::Answer("context_context_data_get_int",
                                             Call("context_context_data_get_int", Text(key)));
    const context_entry *const entry = Parvane::Find(data, key);
    if (result != 0 || entry == nullptr || entry->isDouble) {
        return result != 0 ? result : Parvane::kInvalid;
    }
    *value = entry->integer;
    return 0;
}

int context_context_data_get_double(context_data *data, const char *key, double *value)
{
    const PlatformScope scope;
    const int result = PlatformCalls::Answer("context_context_data_get_double",
                                             Call("context_context_data_get_double", Text(key)));
    const context_entry *const entry = Parvane::Find(data, key);
    if (result != 0 || entry == nullptr || !entry->isDouble) {
        return result != 0 ? result : Parvane::kInvalid;
    }
    *value = entry->real;
    return 0;
}

int context_context_data_get_timestamp(context_data *data, int64_t *milliseconds)
{
    const PlatformScope scope;
    const int result = PlatformCalls::Answer("context_context_data_get_timestamp",
                                             Call("context_context_data_get_timestamp"));
    if (result != 0 || data == nullptr || !data->hasTimestamp) {
        return result != 0 ? result : Parvane::kInvalid;
    }
    *milliseconds = data->milliseconds;
    return 0;
}

// Key-value store.

int vconf_get_int(const char *key, int *value)
{
    const PlatformScope scope;
    auto &keys = PlatformCalls::Keys(ScriptedPlatform::Active());
    const int result = PlatformCalls::Answer("vconf_get_int", Call("vconf_get_int", Text(key)));
    if (result != 0) {
        return result;
    }
    if (keys.count(key) == 0) {
        return -1;
    }
    *value = keys[key];
    return 0;
}

int vconf_notify_key_changed(const char *key, vconf_changed_cb callback, void *user_data)
{
    const PlatformScope scope;
    const int result = PlatformCalls::Answer("vconf_notify_key_changed",
                                             Call("vconf_notify_key_changed", Text(key)));
    if (result == 0) {
        PlatformCalls::AddKeyWatch(key, callback, user_data);
    }
    return result;
}

// Bluetooth.

int bt_initialize(void)
{
    const PlatformScope scope;
    return PlatformCalls::Answer("bt_initialize", Call("bt_initialize"));
}

int bt_deinitialize(void)
{
    const PlatformScope scope;
    return PlatformCalls::Answer("bt_deinitialize", Call("bt_deinitialize"));
}

int bt_adapter_get_address(char **address)
{
    const PlatformScope scope;
    const int result =
        PlatformCalls::Answer("bt_adapter_get_address", Call("bt_adapter_get_address"));
    // A failing call's text is to be released, and not to be used.
    *address = strdup(PlatformCalls::BluetoothAddress(ScriptedPlatform::Active()).c_str());
    return result;
}

// Power.

int power_lock_state(int state, int timeout_ms)
{
    const PlatformScope scope;
    return PlatformCalls::Answer("power_lock_state",
                                 Call("power_lock_state", Text(state), Text(timeout_ms)));
}

// Accessory link.

int registerNotifications(tal_notifications notifications)
{
    const PlatformScope scope;
    return PlatformCalls::RegisterNotifications(ScriptedPlatform::Active(), notifications);
}

int deregisterNotifications(void)
{
    const PlatformScope scope;
    return PlatformCalls::DeregisterNotifications(ScriptedPlatform::Active());
}

int registerServiceAgent(tal_service_descriptor *service)
{
    const PlatformScope scope;
    return PlatformCalls::RegisterService(ScriptedPlatform::Active(), service);
}

int deRegisterServiceAgent(int agentId)
{
    const PlatformScope scope;
    return PlatformCalls::DeregisterService(ScriptedPlatform::Active(), agentId);
}

int findPeerAgent(int agentId)
{
    const PlatformScope scope;
    return PlatformCalls::Answer("findPeerAgent", Call("findPeerAgent", Text(agentId)));
}

int acceptServiceConnection(int agentId, int connectionId, void *peer, void *detail)
{
    const PlatformScope scope;
    return PlatformCalls::Answer("acceptServiceConnection",
                                 Call("acceptServiceConnection", Text(agentId), Text(connectionId),
                                      Text(static_cast<const void *>(peer)),
                                      Text(static_cast<const void *>(detail))));
}

int terminateServiceConnection(int connectionId)
{
    const PlatformScope scope;
    return PlatformCalls::Answer("terminateServiceConnection",
                                 Call("terminateServiceConnection", Text(connectionId)));
}

int sendData(int connectionId, int channelId, int size, const void *data)
{
    const PlatformScope scope;
    return PlatformCalls::Send(ScriptedPlatform::Active(), {connectionId, channelId, size, {}},
                               data);
}

// The main loop's timers and the wall clock.

guint g_timeout_add(guint interval, GSourceFunc function, gpointer data)
{
    const PlatformScope scope;
    return ScriptedPlatform::Active().AddTimer(interval, function, data);
}

// Without a platform it is the real time.
std::time_t time(std::time_t *timer) noexcept
{
    std::time_t now = 0;
    if (const ScriptedPlatform *const platform = ScriptedPlatform::Find()) {
        now = static_cast<std::time_t>(platform->Seconds());
    } else {
        timespec real = {};
        clock_gettime(CLOCK_REALTIME, &real);
        now = real.tv_sec;
    }
    if (timer != nullptr) {
        *timer = now;
    }
    return now;
}

} // extern "C"
