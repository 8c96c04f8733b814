#pragma once

#include <memory>

#include <gio/gio.h>

namespace ParvaneGateway {

/** Lets std::unique_ptr release an object by a function. */
template <auto kRelease>
struct ReleasedBy
{
    template <typename Object>
    void operator()(Object *object) const noexcept
    {
        kRelease(object);
    }
};

/** Owner of one reference to a GObject. */
template <typename T>
using BusObjectPtr = std::unique_ptr<T, ReleasedBy<g_object_unref>>;

/** Owner of one reference to a variant. */
using VariantPtr = std::unique_ptr<GVariant, ReleasedBy<g_variant_unref>>;

/** Owner of an error. */
using BusErrorPtr = std::unique_ptr<GError, ReleasedBy<g_error_free>>;

} // namespace ParvaneGateway
