#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "ContextSensorListner.h"
#include "SensorData.h"

namespace Parvane {

/**
 * One item of the platform's context manager, fanned out to any number of listeners.
 *
 * Owned by the ContextManagerProxy through a shared pointer. A listener is registered under its
 * address as a ContextSensorListner and lives at least as long as its registration. The concrete
 * sensors subscribe to the platform with themselves as user data; that ends in Stop, so a started
 * sensor must be stopped before it is dropped. Main-loop thread only.
 */
class ContextSensor : public std::enable_shared_from_this<ContextSensor>
{
public:
    ContextSensor() = default;
    ContextSensor(const ContextSensor &) = delete;
    ContextSensor &operator=(const ContextSensor &) = delete;
    virtual ~ContextSensor() = default;

    /** Subscribes to the platform's item; a failure is only logged. Here it does nothing. */
    virtual void Start();

    /** Ends the subscription; a failure is only logged. Here it does nothing. */
    virtual void Stop();

    /** Asks for one reading; here the answer is an empty one, delivered before this returns. */
    virtual void GetCurrentSensorData();

    /** Registers a listener; one that is registered already is logged as an error. */
    void AddSensorEventListener(std::shared_ptr<ContextSensorListner> listener);

    /** Ends a registration; an unknown address, only looked up, is logged as an error. */
    void RemoveSensorEventListener(const ContextSensorListner *listener);

    /** Ends every registration. */
    void RemoveAllSensorEventListeners() { mListeners.clear(); }

    bool HasSensorEventListeners() const { return !mListeners.empty(); }

    /**
     * Delivers one reading to every listener, in ascending order of their addresses.
     *
     * A reading of the running subscription goes to OnSensorDataUpdated. The answer to a one-shot
     * query goes to OnSensorDataChanged of the first listener, which ends the query. Any other
     * reading is logged, once for each listener, and dropped. A listener may add and remove
     * listeners in its call: one that is added above it gets this reading, too, and one that is
     * removed before its turn is not called. The caller holds a reference to the sensor.
     */
    void UpdateSensorData(std::shared_ptr<SensorData> data);

protected:
    /**
     * The sensor that a platform callback was given as its user data; null for null.
     *
     * A callback holds this reference until its end, because each call in it may drop the sensor.
     */
    template <typename Sensor>
    static std::shared_ptr<Sensor> Hold(void *user_data)
    {
        auto *const sensor = static_cast<Sensor *>(user_data);
        return sensor == nullptr ? nullptr
                                 : std::static_pointer_cast<Sensor>(sensor->shared_from_this());
    }

    /** The platform's request id of the subscription; -1 while there is none. */
    int32_t mChangedRequestId = -1;

    /** The platform's request id of the outstanding one-shot query; -1 for none. */
    int32_t mCurrentRequestId = -1;

private:
    /** Registered listeners by their addresses. */
    std::map<const void *, std::shared_ptr<ContextSensorListner>> mListeners;
};

} // namespace Parvane
