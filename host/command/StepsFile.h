#pragma once

#include <string>
#include <system_error>

#include "Result.h"
#include "UniqueFd.h"

namespace ParvaneHost {

/**
 * A small text file that one process at a time writes, and which is whole at any time: it is replaced
 * as a whole, and a lock beside it, held as long as the object lives, keeps other writers out.
 */
class StepsFile
{
public:
    /** Makes the file's folder, if need be, and takes the lock if nobody has it; writes nothing else. */
    explicit StepsFile(std::string path);

    /** Empty when the file may be written, else why it may not. */
    [[nodiscard]] const std::string &WhyNotOurs() const noexcept { return mWhyNotOurs; }

    /** The text; empty when there is no file. Else why it cannot be read. */
    [[nodiscard]] Result<std::string, std::errc> Read() const;

    /** Replaces the text; does nothing when the file is not ours. 0, or the errno of the failure. */
    int Write(const std::string &text);

    /** Renames the file to one that ends with ".unread", unless it is not ours. */
    void SetAside() const;

    [[nodiscard]] const std::string &Path() const noexcept { return mPath; }

private:
    std::string mPath;
    Parvane::UniqueFd mLock;
    std::string mWhyNotOurs;
};

} // namespace ParvaneHost
