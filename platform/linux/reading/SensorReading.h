#pragma once

#include <array>
#include <cstddef>
#include <variant>

namespace ParvanePlatform {

/** The items of the context manager, by the numbers of the platform. */
enum class ContextItem { Gesture = 1, Pedometer = 2, HeartRate = 7, Activity = 23 };

/** The name of an item on the control socket and in the configuration: "heart_rate" ... */
const char *NameOf(ContextItem item);

/** One value of a reading. The key is one of the CONTEXT_ objects and is borrowed from there. */
struct SensorValue
{
    const char *mKey = nullptr;
    std::variant<int, double> mValue;
};

/** What a sensor has to tell at one instant: up to eight values. */
class SensorReading
{
public:
    static constexpr std::size_t kMaxValues = 8;

    /** Adds a value; one that is more than kMaxValues is left out. */
    void Add(const char *key, std::variant<int, double> value)
    {
        if (mCount < kMaxValues) {
            mValues[mCount] = SensorValue{key, value};
            ++mCount;
        }
    }

    const SensorValue *begin() const { return mValues.data(); }
    const SensorValue *end() const { return mValues.data() + mCount; }
    std::size_t size() const { return mCount; }

private:
    std::array<SensorValue, kMaxValues> mValues;
    std::size_t mCount = 0;
};

} // namespace ParvanePlatform
