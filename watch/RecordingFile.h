#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Output.h"
#include "UniqueFd.h"

namespace ParvaneWatch {

/** The file of a recording; each row is in it when Write() returns. */
class RecordingFile
{
public:
    /** How long the reader of a pipe has to take what there is, once the recording is to end. */
    static constexpr int kGraceMs = 500;

    /** @param interruptFd  borrowed; readable once the recording is to end, -1 for never */
    explicit RecordingFile(std::string path, int interruptFd = -1);

    /**
     * Makes the file; "-" and "/dev/stdout" are the standard output that is there.
     *
     * @param mayReplace  whether what is there already may be overwritten
     * @return 0 or an errno value; EEXIST; ENXIO for a FIFO that nobody reads
     */
    int Open(bool mayReplace);

    [[nodiscard]] bool IsOpen() const { return static_cast<bool>(mFd); }

    /**
     * Appends whole lines, or, in a file that has an end to cut, nothing at all.
     *
     * @return 0 or an errno value; EINTR or ETIMEDOUT when a pipe's reader did not take them in time
     */
    int Write(std::string_view lines);

    /** The recording is to end, also when the interrupt descriptor is readable no more. */
    void HurryUp() { mPatience.mLimitMs = kGraceMs; }

    /** Makes everything durable and closes the file. @return 0 or an errno value */
    int Close();

    /** For messages. */
    [[nodiscard]] const std::string &Path() const { return mPath; }

    [[nodiscard]] bool IsStandardOutput() const { return mIsStandardOutput; }

private:
    std::string mPath;
    bool mIsStandardOutput;
    Parvane::Patience mPatience;
    Parvane::UniqueFd mFd;
    std::int64_t mSize = 0; // of the same size in each source, however that is compiled
};

} // namespace ParvaneWatch
