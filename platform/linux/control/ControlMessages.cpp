#include "ControlMessages.h"

#include <array>
#include <nlohmann/json.hpp>

namespace ParvanePlatform {

namespace {

/** By ControlError. */
constexpr std::array kErrorNames = {
    "bad-message", "unsupported-version", "unknown-request", "bad-value", "not-manual",
    "busy",        "recording",           "too-slow",        "failed"};

std::string TextOf(const nlohmann::json &message)
{
    return message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace

std::string DoneMessage()
{
    return TextOf({{"version", kControlVersion}, {"ok", true}});
}

std::string ErrorMessage(ControlError error, const std::string &text)
{
    return TextOf(
        {{"version", kControlVersion},
         {"ok", false},
         {"error",
          {{"code", kErrorNames.at(static_cast<std::size_t>(error))}, {"message", text}}}});
}

std::string HeaderMessage(const std::string &text)
{
    return TextOf({{"header", text}});
}

std::string RowMessage(const std::string &text)
{
    return TextOf({{"row", text}});
}

std::string LeftOutMessage(const std::string &reason)
{
    return TextOf({{"left_out", reason}});
}

std::string EndMessage()
{
    return TextOf({{"end", "service-ended"}});
}

} // namespace ParvanePlatform
