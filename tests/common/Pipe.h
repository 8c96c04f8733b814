#pragma once

#include <array>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "UniqueFd.h"

namespace Parvane {

struct Pipe
{
    Pipe()
    {
        std::array<int, 2> ends{-1, -1};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        mReadEnd.Reset(ends[0]);
        mWriteEnd.Reset(ends[1]);
    }

    UniqueFd mReadEnd;
    UniqueFd mWriteEnd;
};

} // namespace Parvane
