#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Printable.h"

namespace ParvanePlatform {

/** More of a foreign text than this does not help whoever reads a message. */
constexpr std::size_t kMaxQuotedBytes = 200;
/** As long as a path can be that the kernel takes. */
constexpr std::size_t kMaxPathBytes = 4096;

/** Foreign text, of any bytes, for a message: printable, and its end cut off where it is long. */
inline std::string Printable(std::string_view text)
{
    return Parvane::Printable(text, kMaxQuotedBytes);
}

/** A path for a message: printable, and whole. */
inline std::string PrintablePath(std::string_view path)
{
    return Parvane::Printable(path, kMaxPathBytes);
}

} // namespace ParvanePlatform
