#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace ParvanePlatform {

/** The version of the control protocol (docs/control.md). */
constexpr int kControlVersion = 1;

// The texts of messages to a client. Bytes that are no UTF-8 become U+FFFD.

std::string TextOf(const nlohmann::json &message);

/** Why a request is refused. @param code  one of docs/control.md */
std::string ErrorMessage(const char *code, const std::string &text);

/** A message of a stream, which has one member. */
std::string StreamMessage(const char *member, const std::string &text);

} // namespace ParvanePlatform
