#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "service_app/Settings.h"

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
        /** Read besides, where they are. */
        std::vector<std::string> mOptional;
    };

    /** What has become of the device since the last call of Look(). */
    enum class Presence {
        Absent,
        Same,
        /** The first one, or one of the same name as the one before. */
        Found,
        /** One of another name than the one before. */
        Replaced
    };

    /** Touches no file. */
    IioDevice(const IioSettings &settings, Inputs inputs);
    /** Switches off what SetEnabled() has switched on. */
    ~IioDevice();

    IioDevice(const IioDevice &) = delete;
    IioDevice &operator=(const IioDevice &) = delete;

    /** Makes sure of the device, or looks for one. */
    Presence Look();

    /** The directory of the device that Look() has found. */
    const std::string &Path() const { return mPath; }

    /** Gives up a device that lacks what it had; the next Look() looks for one anew. */
    void Lose();

    /**
     * Whether the device is to work: 1 or 0 in those attributes that switch the inputs on and off
     * ("in_steps_en" for "in_steps_input"), now and whenever a device is found. A device that has no
     * such attribute, or does not let us write it, works or does not without us.
     */
    void SetEnabled(bool isEnabled);

private:
    bool IsStillThere() const;
    bool Find();
    bool HasRequired(const std::string &path) const;
    void Switch(char state) const;

    const std::string mDirectory;
    const std::string mWantedName;
    const Inputs mInputs;
    /** Empty while there is no device. */
    std::string mPath;
    /** Which directory it was, because another device may come under the same number. */
    dev_t mFileSystem = 0;
    ino_t mInode = 0;
    /** The name of the last device; empty when it has none. */
    std::optional<std::string> mName;
    bool mIsEnabled = false;
    bool mHasToldAbsence = false;
};

} // namespace ParvanePlatform
