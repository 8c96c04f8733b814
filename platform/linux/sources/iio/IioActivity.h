#pragma once

#include <array>
#include <optional>

#include "IioChannel.h"
#include "IioDevice.h"
#include "IioReader.h"

namespace ParvanePlatform {

/**
 * What the wearer does, from the device's confidence in each activity that it knows.
 *
 * The activity is the one of the highest confidence, the quieter one of two that are equal, and none
 * of them below 50 per cent. As long as one of the confidences cannot be used there is no reading:
 * it might be the highest.
 */
class IioActivity : public IioReader
{
public:
    /** `switches` is borrowed for the life of the reader. Touches no file. */
    IioActivity(const IioSettings &settings, IioSwitches &switches);

    std::optional<SensorReading> Read() override;
    void SetPolled(bool isPolled) override;

private:
    /** One activity of the device. */
    struct Candidate
    {
        IioChannel mChannel;
        /** The platform's number of it. */
        int mStatus = 0;
        /** Whether the device has been seen to have it. */
        bool mIsKnown = false;
    };

    IioDevice mDevice;
    std::array<Candidate, 4> mCandidates;
};

} // namespace ParvanePlatform
