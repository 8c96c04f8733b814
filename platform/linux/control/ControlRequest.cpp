#include "ControlRequest.h"

#include <cstdint>
#include <limits>

#include "ControlMessages.h"

namespace ParvanePlatform {

namespace {

using nlohmann::json;

constexpr std::array kNames = {"status",  "config", "log",    "set",     "link",    "memory",
                               "battery", "quit",   "record", "observe", "capture", "replay"};

/** A value as it came, short enough for a message. */
std::string Quoted(const json &value)
{
    constexpr std::size_t kLongest = 60;
    if (value.is_structured()) {
        return value.is_array() ? "an array" : "an object";
    }
    // In ASCII: the cut below could leave half a character of more than one byte.
    const std::string text = value.dump(-1, ' ', true, json::error_handler_t::replace);
    return text.size() <= kLongest ? text : text.substr(0, kLongest) + "...";
}

/** @param byte  the first that is wrong, counted from 1 */
Refusal NoJson(std::size_t byte)
{
    return {"bad-message", "the message is no JSON from byte " + std::to_string(byte) +
                               " on; send one object, in UTF-8"};
}

json Parse(std::string_view message)
{
    // The parser takes a zero byte for the end, whatever comes after it.
    if (const std::size_t zero = message.find('\0'); zero != std::string_view::npos) {
        throw NoJson(zero + 1);
    }
    try {
        return json::parse(message);
    } catch (const json::parse_error &failure) {
        throw NoJson(failure.byte);
    } catch (const json::exception &) {
        throw Refusal{"bad-message",
                      "the message has a number that is too large; send one JSON object"};
    }
}

} // namespace

ControlRequest::ControlRequest(std::string_view message) : mObject(Parse(message))
{
    if (!mObject.is_object()) {
        throw Refusal{"bad-message",
                      "the message is no JSON object but " + std::string(mObject.type_name())};
    }
    CheckVersion();
    const auto name = mObject.find("request");
    if (name == mObject.end()) {
        throw Refusal{"unknown-request", "\"request\" is missing; allowed: " + Joined(kNames)};
    }
    mName = name->is_string() ? name->get<std::string>() : "";
    if (std::find(kNames.begin(), kNames.end(), mName) == kNames.end()) {
        throw Refusal{"unknown-request",
                      "\"request\" is " + Quoted(*name) + "; allowed: " + Joined(kNames)};
    }
}

void ControlRequest::AllowOnly(std::initializer_list<const char *> members) const
{
    for (const auto &[key, value] : mObject.items()) {
        const bool isKnown =
            key == "version" || key == "request" ||
            std::any_of(members.begin(), members.end(),
                        [&key = key](const char *member) { return key == member; });
        if (!isKnown) {
            throw Refusal{"bad-value", "\"" + mName + "\" has no member " + Quoted(key) +
                                           "; allowed: version, request" +
                                           (members.size() > 0 ? ", " : "") + Joined(members)};
        }
    }
}

const json &ControlRequest::Get(const char *member, const std::string &allowed) const
{
    const auto found = mObject.find(member);
    if (found == mObject.end()) {
        throw Refusal{"bad-value",
                      "\"" + std::string(member) + "\" is missing; allowed: " + allowed};
    }
    return *found;
}

int ControlRequest::WholeNumber(const char *member, int smallest, int largest,
                                std::string allowed) const
{
    if (allowed.empty()) {
        allowed =
            "a whole number from " + std::to_string(smallest) + " to " + std::to_string(largest);
    }
    const json &value = Get(member, allowed);
    // A number that no 64 bits hold is read as a floating-point one.
    const bool fits =
        value.is_number_unsigned()
            ? value.get<std::uint64_t>() <= std::uint64_t{std::numeric_limits<int>::max()}
            : value.is_number_integer();
    const std::int64_t number = fits ? value.get<std::int64_t>() : 0;
    if (!fits || number < smallest || number > largest) {
        Refuse(member, allowed);
    }
    return static_cast<int>(number);
}

double ControlRequest::Number(const char *member, const json &least, const json &most) const
{
    const std::string allowed = "a number from " + least.dump() + " to " + most.dump();
    const json &value = Get(member, allowed);
    if (!value.is_number() || value < least || value > most) {
        Refuse(member, allowed);
    }
    return value.get<double>();
}

void ControlRequest::Apply(const char *member, const ConfigKey &key, Settings &settings) const
{
    const auto value = mObject.find(member);
    if (value != mObject.end() &&
        !(value->is_string() && key.mApply({value->get<std::string>()}, settings))) {
        Refuse(member, key.mAllowed);
    }
}

void ControlRequest::Refuse(const char *member, const std::string &allowed) const
{
    throw Refusal{"bad-value", "\"" + std::string(member) + "\" is " + Quoted(mObject.at(member)) +
                                   "; allowed: " + allowed};
}

void ControlRequest::CheckVersion() const
{
    const auto version = mObject.find("version");
    if (version != mObject.end() && *version != kControlVersion) {
        throw Refusal{"unsupported-version", "\"version\" is " + Quoted(*version) +
                                                 "; allowed: " + std::to_string(kControlVersion)};
    }
}

} // namespace ParvanePlatform
