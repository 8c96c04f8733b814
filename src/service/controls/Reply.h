#pragma once

#include <memory>
#include <new>

#include "SensorData.h"
#include "TimeUtil.h"

namespace Parvane {

/**
 * A new reply to `request`: its header and sensor fields, the reply's header code, stamped now.
 *
 * The measurement fields are those of a new record. A null `request` gives a record whose header
 * names no command, which is never sent.
 *
 * @return null when memory has run out
 */
template <typename Record>
std::shared_ptr<Record> MakeReply(const std::shared_ptr<SensorData> &request)
{
    std::shared_ptr<Record> reply;
    try {
        reply = std::make_shared<Record>();
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
    if (request) {
        SensorData &fields = *reply;
        fields = *request;
    }
    reply->mHeaderCode = 0;
    reply->mTimestamp = TimeUtil::GetCurrentTime();
    return reply;
}

} // namespace Parvane
