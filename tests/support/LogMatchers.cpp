#include "LogMatchers.h"

namespace Parvane {

bool IsLineOf(const std::string &text, const std::string &expected)
{
    const std::string anyNumber = "(*) > ";
    const std::size_t star = expected.find(anyNumber);
    if (star == std::string::npos) {
        return text == expected;
    }
    const std::string before = expected.substr(0, star + 1);
    const std::string after = expected.substr(star + 2);
    if (text.compare(0, before.size(), before) != 0) {
        return false;
    }
    std::size_t end = before.size();
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') {
        ++end;
    }
    return end > before.size() && text.substr(end) == after;
}

} // namespace Parvane
