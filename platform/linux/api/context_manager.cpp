#include <platform/context_manager.h>

#include "Boundary.h"
#include "ContextBlock.h"

using namespace ParvanePlatform;

// The functions that need the runtime return what ContextManager says; -12 without memory, -1
// without a runtime. The others work at any time.

extern "C" int context_set_changed_callback(int item, ContextManagerOptionType *option,
                                            context_changed_cb callback, void *user_data,
                                            int *request_id)
{
    const auto work = [&](Runtime &runtime) {
        return runtime.Context().Subscribe(item, option, callback, user_data, *request_id);
    };
    return WithRuntime("context_set_changed_callback", request_id != nullptr, work);
}

extern "C" int context_unset_changed_callback(int item)
{
    return WithRuntime("context_unset_changed_callback",
                       [item](Runtime &runtime) { return runtime.Context().Unsubscribe(item); });
}

extern "C" int context_get_context(int item, ContextManagerOptionType *option,
                                   context_changed_cb callback, void *user_data, int *request_id)
{
    const auto work = [&](Runtime &runtime) {
        return runtime.Context().Query(item, option, callback, user_data, *request_id);
    };
    return WithRuntime("context_get_context", request_id != nullptr, work);
}

extern "C" ContextManagerOptionType *context_option_new(void)
{
    return MakeContextOption();
}

extern "C" int context_option_add_value_int(ContextManagerOptionType **option, const char *key,
                                            int value)
{
    return AddOptionValue(option, key, value);
}

extern "C" int context_option_add_value_double(ContextManagerOptionType **option, const char *key,
                                               double value)
{
    return AddOptionValue(option, key, value);
}

extern "C" int context_context_data_get_int(context_data *data, const char *key, int *value)
{
    return GetContextInt(data, key, value);
}

extern "C" int context_context_data_get_double(context_data *data, const char *key, double *value)
{
    return GetContextDouble(data, key, value);
}

extern "C" int context_context_data_get_timestamp(context_data *data, int64_t *milliseconds)
{
    return GetContextTimestamp(data, milliseconds);
}
