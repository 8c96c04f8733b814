#include "ContextSensorListner.h"

#include <gtest/gtest.h>

#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

class UpdatedOnly : public ContextSensorListner
{
public:
    void OnSensorDataUpdated(std::shared_ptr<SensorData> /*data*/) override { ++mUpdates; }

    int mUpdates = 0;
};

TEST(ContextSensorListnerTest, AnswersAreIgnoredUnlessAskedFor)
{
    ScriptedPlatform platform;
    UpdatedOnly listner;
    ContextSensorListner &face = listner;

    face.OnSensorDataChanged(std::make_shared<SensorData>());
    face.OnSensorDataChanged(nullptr);

    EXPECT_EQ(0, listner.mUpdates);
    EXPECT_TRUE(platform.TakeCalls().empty());
    EXPECT_TRUE(platform.TakeLog().empty());
}

} // namespace
} // namespace Parvane
