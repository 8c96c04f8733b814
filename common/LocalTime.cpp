#include "LocalTime.h"

#include <array>

namespace Parvane {

std::string LocalTime(std::time_t seconds)
{
    constexpr std::size_t kLongest = 64;
    std::tm local{};
    std::array<char, kLongest> text{};
    if (::localtime_r(&seconds, &local) == nullptr) {
        return {};
    }
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S%z", &local)};
}

} // namespace Parvane
