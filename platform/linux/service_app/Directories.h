#pragma once

#include <string>

#include "Files.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

/**
 * Makes sure that a directory can be used: makes it, and what is missing above it, with mode 0700,
 * and checks that files can be made in it.
 *
 * @param path     absolute
 * @param purpose  what it is for, for the message: "state" or "run-time"
 * @param durability  Disk where what is kept in it outlives the system's end
 * @throws StartupError that names the path and the reason
 */
void PrepareDirectory(const std::string &path, const std::string &purpose,
                      Durability durability = Durability::Disk);

/**
 * The claim of one process on a run-time directory: a lock on the file "lock" in it. The kernel
 * drops the lock when the process ends, however it ends; the file stays.
 */
class InstanceLock
{
public:
    /**
     * Takes the lock, without waiting.
     *
     * @throws StartupError when the lock file cannot be used
     */
    explicit InstanceLock(const std::string &runtimeDirectory);

    /** False when another process holds the lock. */
    bool IsHeld() const { return mHeld; }

private:
    Parvane::UniqueFd mFile;
    bool mHeld = false;
};

} // namespace ParvanePlatform
