#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

#include "UniqueFd.h"

namespace ParvaneWatch {

/** The file of a recording; each row is in it when Write() returns. */
class RecordingFile
{
public:
    explicit RecordingFile(std::string path) : mPath(std::move(path)) {}

    /**
     * Makes the file.
     *
     * @param mayReplace  whether what is there already may be overwritten
     * @return 0 or an errno value; EEXIST
     */
    int Open(bool mayReplace);

    [[nodiscard]] bool IsOpen() const { return static_cast<bool>(mFd); }

    /** Appends whole lines, or nothing at all. @return 0 or an errno value */
    int Write(std::string_view lines);

    /** Makes everything durable and closes the file. @return 0 or an errno value */
    int Close();

    [[nodiscard]] const std::string &Path() const { return mPath; }

private:
    std::string mPath;
    UniqueFd mFd;
    off_t mSize = 0;
};

} // namespace ParvaneWatch
