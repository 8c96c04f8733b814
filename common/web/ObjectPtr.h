#pragma once

#include <memory>

#include <glib-object.h>

namespace Parvane {

/** Gives a reference to a GObject back. */
struct ObjectRelease
{
    void operator()(gpointer object) const noexcept { g_object_unref(object); }
};

/** Owner of one reference to a GObject. */
template <typename T>
using ObjectPtr = std::unique_ptr<T, ObjectRelease>;

/** Owner of what g_malloc() has allocated. */
struct GlibFree
{
    void operator()(gpointer block) const noexcept { g_free(block); }
};
using GlibText = std::unique_ptr<char, GlibFree>;

/** Owner of an error that GLib has handed over. */
struct ErrorRelease
{
    void operator()(GError *error) const noexcept { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, ErrorRelease>;

} // namespace Parvane
