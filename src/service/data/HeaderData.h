#pragma once

#include <cstdint>

namespace Parvane {

/** The header that every request and every reply carries. */
class HeaderData
{
public:
    HeaderData() = default;
    HeaderData(const HeaderData &) = default;
    HeaderData &operator=(const HeaderData &) = default;
    virtual ~HeaderData() = default;

    /** 0 or 1 in a received request, 0 in a reply; 2 until somebody sets it. */
    int32_t mHeaderCode = 2;

    /** The command (Command.h); any other value travels as 0. */
    int32_t mMessageType = 0;

    /** The request's flags, 0 to 3; every reply echoes them. */
    uint8_t mMessageFlags = 0;
};

} // namespace Parvane
