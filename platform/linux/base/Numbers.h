#pragma once

#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <string_view>
#include <system_error>

namespace ParvanePlatform {

/** The whole number that `text` is, all of it: digits, a '-' before them; nothing else. */
template <typename Integer>
std::optional<Integer> ParseInteger(std::string_view text)
{
    Integer value{};
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

/** The decimal number that `text` is, all of it: digits, at most one point, a '-' before them. */
inline std::optional<double> ParseDecimal(std::string_view text)
{
    double value = 0.0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, std::chars_format::fixed);
    if (error != std::errc() || stop != end || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

/** The id after `last`: above 0, also after the largest. */
constexpr int NextId(int last)
{
    return last == std::numeric_limits<int>::max() ? 1 : last + 1;
}

} // namespace ParvanePlatform
