#pragma once

#include <memory>

#include <gio/gio.h>

namespace ParvanePlatform {

struct GObjectUnref
{
    void operator()(gpointer object) const noexcept { g_object_unref(object); }
};

struct GVariantUnref
{
    void operator()(GVariant *variant) const noexcept { g_variant_unref(variant); }
};

struct GErrorFree
{
    void operator()(GError *error) const noexcept { g_error_free(error); }
};

/** Owner of one reference to a GObject. */
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;

/** Owner of one reference to a variant. */
using GVariantPtr = std::unique_ptr<GVariant, GVariantUnref>;

/** Owner of an error. */
using GErrorPtr = std::unique_ptr<GError, GErrorFree>;

} // namespace ParvanePlatform
