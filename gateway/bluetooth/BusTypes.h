#pragma once

#include <memory>

#include <gio/gio.h>

#include "ObjectPtr.h"

namespace ParvaneGateway {

/** Gives a reference to a variant back. */
struct VariantRelease
{
    void operator()(GVariant *value) const noexcept { g_variant_unref(value); }
};

/** Owner of one reference to a variant. */
using VariantPtr = std::unique_ptr<GVariant, VariantRelease>;

} // namespace ParvaneGateway
