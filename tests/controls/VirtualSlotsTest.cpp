#include <gtest/gtest.h>

#include "ActivityController.h"
#include "ConnectionEventListener.h"
#include "ContextPedometerSensor.h"
#include "ContextSensor.h"
#include "ContextSensorListner.h"
#include "HostEventListener.h"
#include "SensorControlListener.h"
#include "SensorData.h"
#include "ServiceController.h"
#include "VirtualSlot.h"

// The order of virtual operations is given and never tidied.

namespace Parvane {
namespace {

TEST(VirtualSlotsTest, SensorDataTellsItsKindAfterTheDestructors)
{
    EXPECT_EQ(2U, VirtualSlot(&SensorData::GetSensorType));
}

TEST(VirtualSlotsTest, ContextSensorListnerHearsUpdatesBeforeAnswers)
{
    EXPECT_EQ(2U, VirtualSlot(&ContextSensorListner::OnSensorDataUpdated));
    EXPECT_EQ(3U, VirtualSlot(&ContextSensorListner::OnSensorDataChanged));
}

TEST(VirtualSlotsTest, ContextSensorStartsStopsAndAsks)
{
    EXPECT_EQ(2U, VirtualSlot(&ContextSensor::Start));
    EXPECT_EQ(3U, VirtualSlot(&ContextSensor::Stop));
    EXPECT_EQ(4U, VirtualSlot(&ContextSensor::GetCurrentSensorData));
}

TEST(VirtualSlotsTest, ConnectionEventListenerHasItsThreeOperationsInOrder)
{
    EXPECT_EQ(2U, VirtualSlot(&ConnectionEventListener::OnDataReceived));
    EXPECT_EQ(3U, VirtualSlot(&ConnectionEventListener::OnServiceTerminated));
    EXPECT_EQ(4U, VirtualSlot(&ConnectionEventListener::OnConnectionReleased));
}

TEST(VirtualSlotsTest, HostEventListenerHasItsThreeOperationsInOrder)
{
    EXPECT_EQ(2U, VirtualSlot(&HostEventListener::OnRequestEvent));
    EXPECT_EQ(3U, VirtualSlot(&HostEventListener::OnHostServiceTerminated));
    EXPECT_EQ(4U, VirtualSlot(&HostEventListener::OnHostDisconnected));
}

TEST(VirtualSlotsTest, SensorControlListenerHasItsFiveOperationsInOrder)
{
    EXPECT_EQ(2U, VirtualSlot(&SensorControlListener::RegisterSensorListener));
    EXPECT_EQ(3U, VirtualSlot(&SensorControlListener::UnregisterSensorListener));
    EXPECT_EQ(4U, VirtualSlot(&SensorControlListener::UnregisterAllSensorListeners));
    EXPECT_EQ(5U, VirtualSlot(&SensorControlListener::RequestCurrentSensorData));
    EXPECT_EQ(6U, VirtualSlot(&SensorControlListener::SendSensorData));
}

TEST(VirtualSlotsTest, ServiceControllerHasItsTenOperationsInOrder)
{
    EXPECT_EQ(2U, VirtualSlot(&ServiceController::OnSensorDataUpdated));
    EXPECT_EQ(3U, VirtualSlot(&ServiceController::OnSensorDataChanged));
    EXPECT_EQ(4U, VirtualSlot(&ServiceController::GetSensorType));
    EXPECT_EQ(5U, VirtualSlot(&ServiceController::GetSensorInfo));
    EXPECT_EQ(6U, VirtualSlot(&ServiceController::OnHostServiceTerminated));
    EXPECT_EQ(7U, VirtualSlot(&ServiceController::OnHostDisconnected));
    EXPECT_EQ(8U, VirtualSlot(&ServiceController::Initialize));
    EXPECT_EQ(9U, VirtualSlot(&ServiceController::MeasureCurrentSensorValue));
    EXPECT_EQ(10U, VirtualSlot(&ServiceController::StartSensor));
    EXPECT_EQ(11U, VirtualSlot(&ServiceController::StopSensor));
}

TEST(VirtualSlotsTest, ControllersAndSensorsAddNoOperationsBeforeTheirBases)
{
    EXPECT_EQ(11U, VirtualSlot(&ActivityController::StopSensor));
    EXPECT_EQ(4U, VirtualSlot(&ContextPedometerSensor::GetCurrentSensorData));
}

} // namespace
} // namespace Parvane
