#include "ControlMessages.h"

#include <nlohmann/json.hpp>

namespace ParvanePlatform {

std::string TextOf(const nlohmann::json &message)
{
    return message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string ErrorMessage(const char *code, const std::string &text)
{
    return TextOf({{"version", kControlVersion},
                   {"ok", false},
                   {"error", {{"code", code}, {"message", text}}}});
}

std::string StreamMessage(const char *member, const std::string &text)
{
    return TextOf({{member, text}});
}

} // namespace ParvanePlatform
