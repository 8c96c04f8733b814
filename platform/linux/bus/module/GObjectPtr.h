#pragma once

#include <memory>

#include <gio/gio.h>

#include "Released.h"

namespace ParvanePlatform {

/** Owner of one reference to a GObject. */
template <typename T>
using GObjectPtr = std::unique_ptr<T, Released<g_object_unref>>;

/** Owner of one reference to a variant. */
using GVariantPtr = std::unique_ptr<GVariant, Released<g_variant_unref>>;

/** Owner of an error. */
using GErrorPtr = std::unique_ptr<GError, Released<g_error_free>>;

} // namespace ParvanePlatform
