#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "IioSwitches.h"
#include "Settings.h"

namespace ParvanePlatform {

/**
 * The industrial-I/O device that serves one item: a directory below bus/iio/devices.
 *
 * It is looked for when it is needed, kept for as long as its directory is there, and looked for
 * again when that has gone. Says in the log when there is none, and which one there is: a line for
 * each change.
 */
class IioDevice
{
public:
    /** The attributes of an item. */
    struct Inputs
    {
        /** What the log calls them, such as "in_steps_input". */
        std::string mLabel;
        /** A device that has one of them will do. */
        std::vector<std::string> mRequired;
        /** Those that are to work besides, where they are. */
        std::vector<std::string> mOptional;
    };

    /** What has become of the device since the last call of Look(). */
    enum class Presence {
        Absent,
        Same,
        /** The first one, or the same one as before: of the same name at the same place. */
        Found,
        /** Another one than before. Its name alone is no proof: it is that of the chip. */
        Replaced
    };

    /** `switches` is borrowed for the life of the object. Touches no file. */
    IioDevice(const IioSettings &settings, Inputs inputs, IioSwitches &switches);
    /** Switches off what SetEnabled() has switched on. */
    ~IioDevice();

    IioDevice(const IioDevice &) = delete;
    IioDevice &operator=(const IioDevice &) = delete;

    /** Makes sure of the device, or looks for one. */
    Presence Look();

    /** The directory of the device that Look() has found. */
    const std::string &Path() const { return mPath; }

    /**
     * Gives up a device that lacks an attribute which it had; the next Look() looks for one anew.
     *
     * @param file  the attribute's name
     */
    void Lose(const std::string &file);

    /**
     * Whether the device is to work: 1 or 0 in those attributes that switch the inputs on and off
     * ("in_steps_en" for "in_steps_input"), now and whenever a device is found. A device that has no
     * such attribute, or does not let us write it, works or does not without us. One that was at work
     * before is left so.
     */
    void SetEnabled(bool isEnabled);

    /** Whether an input of the device is switched off just now. */
    bool IsOff(const std::string &input) const;

private:
    bool IsStillThere() const;
    /** `obstacle` becomes the first thing that kept it from seeing a device; or stays empty. */
    bool Find(std::string &obstacle);
    bool HasRequired(const std::string &path, std::string &obstacle) const;
    void SwitchOn();
    void SwitchOff();
    void TellAbsence(const std::string &line);

    const std::string mDirectory;
    const std::string mWantedName;
    const Inputs mInputs;
    IioSwitches &mSwitches;
    /** Empty while there is no device. */
    std::string mPath;
    /** Which directory it was, because another device may come under the same number. */
    dev_t mFileSystem = 0;
    ino_t mInode = 0;
    /** The name of the last device; empty when it has none. */
    std::optional<std::string> mName;
    /** The real path of the directory above its own: the bus and the address where it is attached. */
    std::string mPlace;
    bool mIsEnabled = false;
    /** What has a user more because of this device. */
    std::vector<std::string> mSwitchedOn;
    /** What was said last about there being no device; empty while there is one. */
    std::string mToldAbsence;
};

} // namespace ParvanePlatform
