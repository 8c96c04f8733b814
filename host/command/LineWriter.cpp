#include "LineWriter.h"

#include <string>

#include "Output.h"

namespace ParvaneHost {

bool LineWriter::Write(std::string_view line)
{
    if (mErrno == 0) {
        mErrno = Parvane::WriteAll(mFd, std::string(line) + '\n');
    }
    return mErrno == 0;
}

} // namespace ParvaneHost
