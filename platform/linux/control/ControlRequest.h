#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "ConfigSchema.h"

namespace ParvanePlatform {

/** A request that is not carried out, and what its sender is told. */
struct Refusal
{
    /** One of docs/control.md. */
    const char *mCode;
    std::string mText;
};

/** "up, down" */
template <typename Words>
std::string Joined(const Words &words)
{
    std::string text;
    for (const char *word : words) {
        text += (text.empty() ? "" : ", ") + std::string(word);
    }
    return text;
}

/** One request whose members are looked at one by one. Whatever is not allowed is thrown, as a Refusal. */
class ControlRequest
{
public:
    explicit ControlRequest(std::string_view message);

    [[nodiscard]] const std::string &Name() const { return mName; }

    /** Refuses members that this request does not have: a wish that is not understood. */
    void AllowOnly(std::initializer_list<const char *> members) const;

    [[nodiscard]] bool Has(const char *member) const { return mObject.contains(member); }

    /** A member that has to be there. @param allowed  what it may be, for the message */
    [[nodiscard]] const nlohmann::json &Get(const char *member, const std::string &allowed) const;

    /** A member that is a list, unless somebody has sent something else; empty without it. */
    [[nodiscard]] nlohmann::json List(const char *member) const
    {
        return mObject.value(member, nlohmann::json::array());
    }

    /** A member that is one of `names`. @return its place among them */
    template <std::size_t count>
    std::size_t Choice(const char *member, const std::array<const char *, count> &names) const
    {
        const std::string allowed = Joined(names);
        const nlohmann::json &value = Get(member, allowed);
        const auto found = std::find_if(names.begin(), names.end(), [&value](const char *name) {
            return value.is_string() && value.get_ref<const std::string &>() == name;
        });
        if (found == names.end()) {
            Refuse(member, allowed);
        }
        return static_cast<std::size_t>(found - names.begin());
    }

    /** A member that is a whole number, as JSON has it without point and exponent. */
    [[nodiscard]] int WholeNumber(const char *member, int smallest, int largest,
                                  std::string allowed = "") const;

    [[nodiscard]] double Number(const char *member, const nlohmann::json &least,
                                const nlohmann::json &most) const;

    /** Sets what a member that may be there says, by the rules of a key of the configuration. */
    void Apply(const char *member, const ConfigKey &key, Settings &settings) const;

    [[noreturn]] void Refuse(const char *member, const std::string &allowed) const;

private:
    void CheckVersion() const;

    nlohmann::json mObject;
    std::string mName;
};

} // namespace ParvanePlatform
