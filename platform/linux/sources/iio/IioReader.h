#pragma once

#include <optional>

#include "SensorReading.h"

namespace ParvanePlatform {

/** Reads one item from its device; an implementation for each item. */
class IioReader
{
public:
    virtual ~IioReader() = default;

    /**
     * Reads the attributes as they are now. Never waits.
     *
     * @return empty when there is no device, or what it says cannot be used; the log says why. Empty
     *         also when it is switched off and has told nothing yet
     */
    virtual std::optional<SensorReading> Read() = 0;

    /** Whether the item is read again and again, so that its device is to work. */
    virtual void SetPolled(bool isPolled) = 0;
};

} // namespace ParvanePlatform
