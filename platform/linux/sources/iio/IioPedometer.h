#pragma once

#include <array>
#include <optional>
#include <string>

#include "IioChannel.h"
#include "IioCounter.h"
#include "IioDevice.h"
#include "IioReader.h"

namespace ParvanePlatform {

/**
 * Steps, and the distance, energy and speed of the same device where it has them. A distance on
 * another device may be that to an obstacle.
 *
 * Without steps there is no reading. The counts of steps, distance and energy never go down, whatever
 * becomes of the device; a distance or energy that cannot be read just now keeps its last value. So
 * does a count whose input is switched off while it is not polled.
 */
class IioPedometer : public IioReader
{
public:
    /** `switches` is borrowed for the life of the reader. Touches no file. */
    IioPedometer(const IioSettings &settings, IioSwitches &switches);

    std::optional<SensorReading> Read() override;
    void SetPolled(bool isPolled) override;

private:
    /** A counter of the device, and what has been counted with it. */
    struct Counted
    {
        IioChannel mChannel;
        IioCounter mCounter;
    };

    /** Takes what an input says into its count, unless it is switched off and says nothing. */
    void Take(Counted &counted, double value) const;
    void TakeOptional(Counted &counted);
    /** In metres per second. */
    std::optional<double> Speed();
    std::optional<double> SpeedOfAxes();

    IioDevice mDevice;
    bool mIsPolled = false;
    Counted mSteps;
    Counted mDistance;
    Counted mEnergy;
    /** The magnitude of the velocity, in three dimensions or in two. */
    std::array<IioChannel, 2> mMagnitudes;
    std::array<IioChannel, 3> mAxes;
};

} // namespace ParvanePlatform
