#include "SensorReading.h"

namespace ParvanePlatform {

const char *NameOf(ContextItem item)
{
    switch (item) {
    case ContextItem::Gesture:
        return "gesture";
    case ContextItem::Pedometer:
        return "pedometer";
    case ContextItem::HeartRate:
        return "heart_rate";
    case ContextItem::Activity:
        return "activity";
    }
    return "?";
}

} // namespace ParvanePlatform
