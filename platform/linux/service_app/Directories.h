#pragma once

#include <string>

#include "Files.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

/**
 * Makes sure that a directory can be used: makes it, and what is missing above it, with mode 0700,
 * and checks that files can be made in it, by nobody but the user of this process.
 *
 * @param path     absolute
 * @param purpose  what it is for, for the message: "state" or "run-time"
 * @param durability  Disk where what is kept in it outlives the system's end
 * @throws StartupError that names the path and the reason
 */
void PrepareDirectory(const std::string &path, const std::string &purpose,
                      Durability durability = Durability::Disk);

/**
 * Lets other users reach what lies in a directory of this user, if its own mode lets them: 0711. They do not see
 * what there is. @throws StartupError
 */
void LetOthersThrough(const std::string &path);

/**
 * The claim of one process on a directory, taken without waiting. The kernel drops the lock when the
 * process ends, however it ends.
 */
class InstanceLock
{
public:
    /** A lock on the file "lock" in it, which stays. @throws StartupError when it cannot be used */
    static InstanceLock OfRunTime(const std::string &directory);

    /** A lock on the directory itself: that needs no file, which a full disk may not take. */
    static InstanceLock OfState(const std::string &directory);

    /** False when another process holds the lock. */
    bool IsHeld() const { return mHeld; }

private:
    InstanceLock(const std::string &path, int flags);

    Parvane::UniqueFd mFile;
    bool mHeld = false;
};

} // namespace ParvanePlatform
