#include "ControlMessages.h"

#include <nlohmann/json.hpp>

namespace ParvanePlatform {

namespace {

const char *NameOf(ControlError error)
{
    switch (error) {
    case ControlError::BadMessage:
        return "bad-message";
    case ControlError::UnsupportedVersion:
        return "unsupported-version";
    case ControlError::UnknownRequest:
        return "unknown-request";
    case ControlError::BadValue:
        return "bad-value";
    case ControlError::NotManual:
        return "not-manual";
    case ControlError::Busy:
        return "busy";
    case ControlError::Recording:
        return "recording";
    case ControlError::TooSlow:
        return "too-slow";
    case ControlError::Failed:
        return "failed";
    }
    return "failed";
}

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
    return TextOf({{"version", kControlVersion},
                   {"ok", false},
                   {"error", {{"code", NameOf(error)}, {"message", text}}}});
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
