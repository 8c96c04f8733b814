#include "HeaderData.h"

#include <memory>
#include <type_traits>

#include <gtest/gtest.h>

#include "SensorData.h"

namespace Parvane {
namespace {

TEST(HeaderDataTest, NewHeaderHasCodeTwoAndNoCommandAndNoFlags)
{
    const HeaderData header;

    EXPECT_EQ(2, header.mHeaderCode);
    EXPECT_EQ(0, header.mMessageType);
    EXPECT_EQ(0, header.mMessageFlags);
}

TEST(HeaderDataTest, FieldsHaveTheWidthsOfTheWire)
{
    EXPECT_TRUE((std::is_same_v<decltype(HeaderData::mHeaderCode), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(HeaderData::mMessageType), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(HeaderData::mMessageFlags), uint8_t>));
}

TEST(HeaderDataTest, RecordIsDestroyedWholeThroughItsHeader)
{
    struct Canary : SensorData
    {
        std::shared_ptr<int> mHeld = std::make_shared<int>(0);
    };
    auto canary = std::make_unique<Canary>();
    const std::weak_ptr<int> held = canary->mHeld;

    std::unique_ptr<HeaderData> header = std::move(canary);
    header.reset();

    EXPECT_TRUE(held.expired());
}

} // namespace
} // namespace Parvane
