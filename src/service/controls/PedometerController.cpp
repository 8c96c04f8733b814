#include "PedometerController.h"

#include <exception>
#include <locale>
#include <sstream>
#include <utility>

#include <platform/preference.h>

#include "Command.h"
#include "DeviceManager.h"
#include "Log.h"
#include "OneShotTimer.h"
#include "PlatformPtr.h"
#include "TimeUtil.h"

namespace Parvane {

namespace {

constexpr const char *kRequestedKey = "Parvane/data/pedometer/requested";
constexpr const char *kValueKey = "Parvane/data/pedometer/value";
constexpr const char *kTimeKey = "Parvane/data/pedometer/time";
constexpr int kNoSuchKey = -126;

constexpr guint kFirstQueryDelayMs = 500;
constexpr float kMaxSteps = 300000.0F;
constexpr int32_t kMinDelayMs = 300000;
constexpr uint16_t kReserved = 1;

} // namespace

PedometerController::PedometerController(std::shared_ptr<SensorControlListener> listener)
    : ServiceController(listener), mOwnListener(std::move(listener))
{
    mDailyData = RestorePedometerData();
    mHostRequested = IsHostRequested();
}

PedometerController::~PedometerController()
{
    if (mOwnListener) {
        mOwnListener->UnregisterSensorListener(SensorType::Pedometer, AddressOnly());
    }
}

void PedometerController::OnSensorDataUpdated(std::shared_ptr<SensorData> data)
{
    const auto update = std::dynamic_pointer_cast<PedometerData>(data);
    if (!update) {
        return;
    }
    if (TimeUtil::GetEndOfDay(mDailyData.mTimestamp) < update->mTimestamp) {
        mDailyData = *update;
    } else {
        mDailyData = mDailyData + *update;
        mDailyData.mTimestamp = update->mTimestamp;
        mDailyData.mRequestId = update->mRequestId;
    }
    SavePedometerData(mDailyData);

    if (mOwnListener) {
        auto push = std::make_shared<PedometerData>(mDailyData);
        push->mMessageType = CommandMeasureOnce;
        push->mMessageFlags = mLastRequest ? mLastRequest->mMessageFlags : uint8_t{0};
        push->mHeaderCode = 0;
        push->mCategory = DeviceManager::SensorIdByType(update->GetSensorType());
        mOwnListener->SendSensorData(std::move(push));
    }
}

void PedometerController::OnSensorDataChanged(std::shared_ptr<SensorData> data)
{
    OnSensorDataUpdated(std::move(data));
}

SensorType PedometerController::GetSensorType()
{
    return SensorType::Pedometer;
}

std::shared_ptr<SensorInfo> PedometerController::GetSensorInfo()
{
    return DescribeSensor(kMaxSteps, kMinDelayMs, kReserved);
}

void PedometerController::Initialize()
{
    if (mOwnListener && mHostRequested) {
        mOwnListener->RegisterSensorListener(SensorType::Pedometer, shared_from_this());
    }
}

void PedometerController::MeasureCurrentSensorValue(std::shared_ptr<SensorData> request)
{
    if (!request) {
        PARVANE_ERROR("NULL point error");
        return;
    }
    if (mHostRequested) {
        if (mOwnListener) {
            mOwnListener->RequestCurrentSensorData(SensorType::Pedometer);
        }
        return;
    }
    auto target = MakeTimerTarget(shared_from_this());
    SetHostRequestedStatus(true);
    Initialize();
    StartOneShotTimer(kFirstQueryDelayMs, OnTimerFired, std::move(target));
}

bool PedometerController::IsHostRequested()
{
    bool value = false;
    const int result = preference_get_boolean(kRequestedKey, &value);
    if (result != 0 && result != kNoSuchKey) {
        PARVANE_ERROR("Failed to get First host requested");
    }
    mHostRequested = result == 0 && value;
    return mHostRequested;
}

void PedometerController::SetHostRequestedStatus(bool value)
{
    const int result = preference_set_boolean(kRequestedKey, value);
    if (result != 0) {
        PARVANE_ERROR("Failed to save the status value..[%d]", result);
    }
    mHostRequested = value;
}

void PedometerController::SavePedometerData(const PedometerData &data)
{
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text.exceptions(std::ios::badbit); // without memory for all of it nothing is stored
    text << data;
    const int valueResult = preference_set_string(kValueKey, text.str().c_str());
    if (valueResult != 0) {
        PARVANE_ERROR("Failed to save value..[%d]", valueResult);
    }
    const int timeResult = preference_set_int(kTimeKey, data.mTimestamp);
    if (timeResult != 0) {
        PARVANE_ERROR("Failed to save value..[%d]", timeResult);
    }
}

PedometerData PedometerController::RestorePedometerData()
{
    PedometerData restored;
    bool existing = false;
    if (preference_is_existing(kValueKey, &existing) != 0 || !existing) {
        return restored;
    }
    char *value = nullptr;
    const int valueResult = preference_get_string(kValueKey, &value);
    PlatformPtr<char> owned(value);
    if (valueResult != 0 || value == nullptr) {
        PARVANE_ERROR("Failed to get saved value..[%d]", valueResult);
        return restored;
    }
    std::istringstream text(value);
    text.imbue(std::locale::classic());
    text.exceptions(std::ios::badbit); // memory that runs out is not a fault of the text
    text >> restored;
    owned.reset();

    int time = 0;
    const int timeResult = preference_get_int(kTimeKey, &time);
    if (timeResult != 0) {
        PARVANE_ERROR("Failed to get time value..[%d]", timeResult);
        return restored;
    }
    restored.mTimestamp = time;
    return restored;
}

gboolean PedometerController::OnTimerFired(gpointer data) noexcept
try {
    const auto self = TakeTimerTarget<PedometerController>(data);
    if (self && self->mOwnListener) {
        self->mOwnListener->RequestCurrentSensorData(self->GetSensorType());
    }
    return G_SOURCE_REMOVE;
} catch (const std::exception &error) {
    PARVANE_ERROR("first query dropped [%s]", error.what());
    return G_SOURCE_REMOVE;
}

} // namespace Parvane
