#include <string>
#include <utility>

#include <platform/preference.h>

#include "Boundary.h"

using namespace ParvanePlatform;

namespace {

template <typename Value>
int GetPreference(const char *function, const char *key, Value *value) noexcept
{
    return WithRuntime(
        function, key != nullptr && value != nullptr,
        [key, value](Runtime &runtime) { return runtime.Preferences().Get(key, *value); });
}

template <typename Value>
int SetPreference(const char *function, const char *key, Value value) noexcept
{
    return WithRuntime(function, key != nullptr, [key, value](Runtime &runtime) {
        return runtime.Preferences().Set(key, value);
    });
}

} // namespace

// Each function returns what PreferenceStore says; -22 for a null argument, -12 without memory, -1
// without a runtime.

extern "C" int preference_get_boolean(const char *key, bool *value)
{
    return GetPreference("preference_get_boolean", key, value);
}

extern "C" int preference_set_boolean(const char *key, bool value)
{
    return SetPreference("preference_set_boolean", key, value);
}

extern "C" int preference_get_int(const char *key, int *value)
{
    return GetPreference("preference_get_int", key, value);
}

extern "C" int preference_set_int(const char *key, int value)
{
    return SetPreference("preference_set_int", key, value);
}

extern "C" int preference_get_string(const char *key, char **value)
{
    const auto work = [key, value](Runtime &runtime) {
        std::string text;
        const int result = runtime.Preferences().Get(key, text);
        return result != 0 ? result : GiveText(text, value);
    };
    return WithRuntime("preference_get_string", key != nullptr && value != nullptr, work);
}

extern "C" int preference_set_string(const char *key, const char *value)
{
    const auto work = [key, value](Runtime &runtime) {
        PreferenceStore &store = runtime.Preferences();
        std::string text;
        try {
            text = value;
        } catch (...) {
            store.TakeTurnBack();
            throw;
        }
        return store.Set(key, std::move(text));
    };
    return WithRuntime("preference_set_string", key != nullptr && value != nullptr, work);
}

extern "C" int preference_is_existing(const char *key, bool *existing)
{
    const auto work = [key, existing](Runtime &runtime) {
        return runtime.Preferences().Exists(key, *existing);
    };
    return WithRuntime("preference_is_existing", key != nullptr && existing != nullptr, work);
}
