#pragma once

#include <map>
#include <string>
#include <sys/types.h>

namespace ParvanePlatform {

/**
 * The attributes that switch a device's inputs on and off, such as "in_steps_en", which several items
 * may need at a time.
 *
 * What was on before stays on. Says in the log when one cannot be switched on, and when the reason
 * for that changes.
 */
class IioSwitches
{
public:
    /**
     * One user more of a switch: makes sure that it is on.
     *
     * @return whether there is such a file; only then it has a user more
     */
    bool Use(const std::string &path);

    /** One user less; the last one switches off what was found off. */
    void Leave(const std::string &path);

    /** One user less of a switch that has gone: writes nothing, since another may be in its place. */
    void Forget(const std::string &path);

    /** Whether there is such a file and it is off. */
    static bool IsOff(const std::string &path);

private:
    struct Switch
    {
        int mUsers = 0;
        /** Which file it was, because another device may have come under the same number. */
        dev_t mFileSystem = 0;
        ino_t mInode = 0;
        bool mWasOff = false;
        /** Why it could not be switched on, an errno value. */
        int mToldError = 0;
    };

    /** Takes one user off; whether the switch is to be off now. */
    bool Drop(const std::string &path);

    std::map<std::string, Switch> mSwitches;
};

} // namespace ParvanePlatform
