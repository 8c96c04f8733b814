#include "AllowedUser.h"

#include <pwd.h>

#include "Numbers.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

std::optional<uid_t> AllowedUser(const std::string &name, const char *owner)
{
    constexpr uid_t kNobody = 65534;
    if (name.empty()) {
        return std::nullopt;
    }
    auto user = ParseInteger<uid_t>(name);
    if (!user) {
        if (const passwd *entry = ::getpwnam(name.c_str()); entry != nullptr) {
            user = entry->pw_uid;
        }
    }
    if (!user || *user == kNobody || *user == static_cast<uid_t>(-1)) {
        LogWarning("%s: nobody else is let in: there is no user '%s'", owner, name.c_str());
        return std::nullopt;
    }
    return user;
}

} // namespace ParvanePlatform
