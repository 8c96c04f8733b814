#pragma once

#include <memory>

#include <glib-object.h>

#include "Released.h"

namespace Parvane {

/** Owner of one reference to a GObject. */
template <typename T>
using ObjectPtr = std::unique_ptr<T, Released<g_object_unref>>;

/** Owner of what g_malloc() has allocated. */
using GlibText = std::unique_ptr<char, Released<g_free>>;

/** Owner of an error that GLib has handed over. */
using ErrorPtr = std::unique_ptr<GError, Released<g_error_free>>;

/** Owner of one reference to a variant. */
using VariantPtr = std::unique_ptr<GVariant, Released<g_variant_unref>>;

} // namespace Parvane
