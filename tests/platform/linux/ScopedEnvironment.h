#pragma once

#include <cstdlib>
#include <map>
#include <optional>
#include <string>

namespace ParvanePlatform {

/** Changes variables of the environment for the length of its life. */
class ScopedEnvironment
{
public:
    ScopedEnvironment() = default;
    ~ScopedEnvironment()
    {
        for (const auto &[name, value] : mOld) {
            Apply(name, value);
        }
    }

    ScopedEnvironment(const ScopedEnvironment &) = delete;
    ScopedEnvironment &operator=(const ScopedEnvironment &) = delete;

    /** Sets a variable; without a value it is unset. */
    void Set(const std::string &name, const std::optional<std::string> &value)
    {
        const char *old = std::getenv(name.c_str());
        mOld.emplace(name, old != nullptr ? std::optional<std::string>(old) : std::nullopt);
        Apply(name, value);
    }

private:
    static void Apply(const std::string &name, const std::optional<std::string> &value)
    {
        if (value) {
            setenv(name.c_str(), value->c_str(), 1);
        } else {
            unsetenv(name.c_str());
        }
    }

    std::map<std::string, std::optional<std::string>> mOld;
};

} // namespace ParvanePlatform
