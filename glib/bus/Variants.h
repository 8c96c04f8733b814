#pragma once

#include <string>

#include <gio/gio.h>

#include "ObjectPtr.h"

// What messages of the bus hold. A value of another type than the one that is asked for is false or empty.

namespace Parvane {

/** Of a tuple whose type is known. */
inline VariantPtr Child(GVariant *tuple, gsize index)
{
    return VariantPtr(g_variant_get_child_value(tuple, index));
}

/** The same, a string or a path. */
inline std::string TextChild(GVariant *tuple, gsize index)
{
    return g_variant_get_string(Child(tuple, index).get(), nullptr);
}

inline bool AsBool(GVariant *value)
{
    return g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN) != FALSE &&
           g_variant_get_boolean(value) != FALSE;
}

inline std::string AsText(GVariant *value)
{
    return g_variant_is_of_type(value, G_VARIANT_TYPE_STRING) != FALSE
               ? g_variant_get_string(value, nullptr)
               : "";
}

/** Calls `function(key, value)` for each entry of a dictionary whose keys are strings or paths. */
template <typename Function>
void ForEachEntry(GVariant *dictionary, Function function)
{
    const gsize count = g_variant_n_children(dictionary);
    for (gsize i = 0; i < count; ++i) {
        const VariantPtr entry = Child(dictionary, i);
        function(TextChild(entry.get(), 0), Child(entry.get(), 1).get());
    }
}

/** Calls `function(property, value)` for each entry of a dictionary a{sv}. */
template <typename Function>
void ForEachProperty(GVariant *properties, Function function)
{
    ForEachEntry(properties, [&](const std::string &property, GVariant *boxed) {
        function(property, VariantPtr(g_variant_get_variant(boxed)).get());
    });
}

/** Calls `function(text)` for each of an array of strings. */
template <typename Function>
void ForEachText(GVariant *texts, Function function)
{
    const gsize count = g_variant_n_children(texts);
    for (gsize i = 0; i < count; ++i) {
        function(TextChild(texts, i));
    }
}

} // namespace Parvane
