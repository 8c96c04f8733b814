#pragma once

#include <cstdint>
#include <memory>
#include <tuple>

#include <gtest/gtest.h>

#include "RecordingControlListener.h"
#include "ScriptedPlatform.h"
#include "SensorData.h"

namespace Parvane {

/** The base of the sensor controllers' fixtures. */
class ControllerTest : public testing::Test
{
protected:
    /** A request of the host, every field other than by default. */
    static std::shared_ptr<SensorData> MakeRequest(int command, uint8_t flags = 1,
                                                   uint8_t category = 3)
    {
        auto request = std::make_shared<SensorData>();
        request->mHeaderCode = 1;
        request->mMessageType = command;
        request->mMessageFlags = flags;
        request->mCategory = category;
        request->mDataFormat = 4;
        request->mDataOption = 2;
        request->mTimestamp = 5000;
        request->mRequestId = 77;
        return request;
    }

    /** A reply carries what MakeRequest() has put in, the reply's code and the time of now. */
    void ExpectReply(const SensorData &reply, int command, uint8_t flags = 1,
                     uint8_t category = 3) const
    {
        const auto fields = [](const SensorData &data) {
            return std::make_tuple(data.mHeaderCode, data.mMessageType, int{data.mMessageFlags},
                                   int{data.mCategory}, data.mDataFormat, data.mDataOption,
                                   int64_t{data.mTimestamp}, data.mRequestId);
        };
        EXPECT_EQ(
            std::make_tuple(0, command, int{flags}, int{category}, 4, 2, mPlatform.Seconds(), 77),
            fields(reply));
    }

    ScriptedPlatform mPlatform;
    std::shared_ptr<RecordingControlListener> mListener =
        std::make_shared<RecordingControlListener>();
};

} // namespace Parvane
