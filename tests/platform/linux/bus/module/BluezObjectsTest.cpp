#include "BluezObjects.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kStrap[] = "/org/bluez/hci0/dev_01";

/** A variant from its text form, with its type before it. */
Parvane::VariantPtr Parse(const std::string &text)
{
    GError *error = nullptr;
    Parvane::VariantPtr variant(g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, &error));
    const Parvane::ErrorPtr owned(error);
    EXPECT_NE(variant, nullptr) << text << ": " << (error != nullptr ? error->message : "");
    return variant;
}

} // namespace

/** BlueZ's messages in, what they say of adapters and straps out. */
class BluezObjectsTest : public testing::Test
{
protected:
    void Load(const std::string &objects)
    {
        mObjects.Load(Parse("@a{oa{sa{sv}}} {" + objects + "}").get());
    }

    void Add(const std::string &path, const std::string &interfaces)
    {
        mObjects.Add(path, Parse("@a{sa{sv}} {" + interfaces + "}").get());
    }

    void Remove(const std::string &path, const std::string &interface)
    {
        mObjects.Remove(path, Parse("@as ['" + interface + "']").get());
    }

    void Change(const std::string &path, const std::string &interface, const std::string &changed,
                const std::string &invalidated = "")
    {
        mObjects.Change(path, interface, Parse("@a{sv} {" + changed + "}").get(),
                        Parse("@as [" + invalidated + "]").get());
    }

    void AddAdapter(const std::string &name, bool isPowered)
    {
        Add("/org/bluez/" + name, std::string("'org.bluez.Adapter1': {'Powered': <") +
                                      (isPowered ? "true" : "false") + ">}");
    }

    void AddStrap(const std::string &path, const std::string &address)
    {
        Add(path, "'org.bluez.Device1': {'Address': <'" + address +
                      "'>, 'UUIDs': <['0000180d-0000-1000-8000-00805f9b34fb']>}");
    }

    BluezObjects mObjects;
};

TEST_F(BluezObjectsTest, LoadForgetsWhatWasThereBefore)
{
    AddAdapter("hci0", true);
    AddStrap(kStrap, "C0:FF:EE:00:00:01");

    Load("'/org/bluez/hci1': {'org.bluez.Adapter1': {'Powered': <true>}}");

    EXPECT_FALSE(mObjects.HasAdapter("hci0"));
    EXPECT_EQ(mObjects.PoweredAdapter(""), "/org/bluez/hci1");
    EXPECT_EQ(mObjects.FindDevice(kStrap), nullptr);
}

TEST_F(BluezObjectsTest, AdapterIsFoundByItsNameOrWithoutOne)
{
    AddAdapter("hci0", false);
    AddAdapter("hci1", true);

    EXPECT_TRUE(mObjects.HasAdapter(""));
    EXPECT_TRUE(mObjects.HasAdapter("hci0"));
    EXPECT_FALSE(mObjects.HasAdapter("hci"));
    EXPECT_EQ(mObjects.PoweredAdapter(""), "/org/bluez/hci1");
    EXPECT_EQ(mObjects.PoweredAdapter("hci0"), "");
    Remove("/org/bluez/hci1", "org.bluez.Adapter1");
    EXPECT_EQ(mObjects.PoweredAdapter(""), "");
}

TEST_F(BluezObjectsTest, StrapIsADeviceWithTheHeartRateServiceInAnyCase)
{
    AddAdapter("hci0", true);
    Add(kStrap, "'org.bluez.Device1': {'UUIDs': <['0000180D-0000-1000-8000-00805F9B34FB']>}");
    Add("/org/bluez/hci0/dev_02",
        "'org.bluez.Device1': {'UUIDs': <['0000180f-0000-1000-8000-00805f9b34fb']>}");

    EXPECT_THAT(mObjects.FindStraps({}), ElementsAre(kStrap));
}

TEST_F(BluezObjectsTest, ServicesMayBeToldLater)
{
    AddAdapter("hci0", true);
    Add(kStrap, "'org.bluez.Device1': {'UUIDs': <@as []>}");
    EXPECT_THAT(mObjects.FindStraps({}), IsEmpty());

    Change(kStrap, "org.bluez.Device1",
           "'UUIDs': <['0000180d-0000-1000-8000-00805f9b34fb']>, 'RSSI': <int16 -60>");

    EXPECT_THAT(mObjects.FindStraps({}), ElementsAre(kStrap));
}

TEST_F(BluezObjectsTest, NamedDeviceNeedsNoServiceAndNoOtherWillDo)
{
    AddAdapter("hci0", true);
    AddStrap(kStrap, "C0:FF:EE:00:00:01");
    Add("/org/bluez/hci0/dev_02", "'org.bluez.Device1': {'Address': <'c0:ff:ee:00:00:02'>}");

    EXPECT_THAT(mObjects.FindStraps({"", "C0:FF:EE:00:00:02"}),
                ElementsAre("/org/bluez/hci0/dev_02"));
}

TEST_F(BluezObjectsTest, StrapCountsOnlyWithItsAdapterPowered)
{
    AddStrap(kStrap, "C0:FF:EE:00:00:01");
    EXPECT_THAT(mObjects.FindStraps({}), IsEmpty());
    AddAdapter("hci0", false);
    EXPECT_THAT(mObjects.FindStraps({}), IsEmpty());

    Change("/org/bluez/hci0", "org.bluez.Adapter1", "'Powered': <true>");

    EXPECT_THAT(mObjects.FindStraps({}), ElementsAre(kStrap));
    EXPECT_THAT(mObjects.FindStraps({"hci1", ""}), IsEmpty());
}

TEST_F(BluezObjectsTest, ConnectedStrapsComeFirst)
{
    AddAdapter("hci0", true);
    AddStrap("/org/bluez/hci0/dev_01", "C0:FF:EE:00:00:01");
    AddStrap("/org/bluez/hci0/dev_02", "C0:FF:EE:00:00:02");

    Change("/org/bluez/hci0/dev_02", "org.bluez.Device1", "'Connected': <true>");

    EXPECT_THAT(mObjects.FindStraps({}),
                ElementsAre("/org/bluez/hci0/dev_02", "/org/bluez/hci0/dev_01"));
}

TEST_F(BluezObjectsTest, MeasurementBelongsToTheDeviceBelowWhichItLies)
{
    const std::string uuid = "'UUID': <'00002a37-0000-1000-8000-00805f9b34fb'>";
    Add(std::string(kStrap) + "/service1/char1",
        "'org.bluez.GattCharacteristic1': {'UUID': <'00002a38-0000-1000-8000-00805f9b34fb'>}");
    Add(std::string(kStrap) + "/service1/char2", "'org.bluez.GattCharacteristic1': {" + uuid + "}");

    EXPECT_EQ(mObjects.FindMeasurement(kStrap), std::string(kStrap) + "/service1/char2");
    EXPECT_EQ(mObjects.FindMeasurement("/org/bluez/hci0/dev_0"), "");
    Remove(std::string(kStrap) + "/service1/char2", "org.bluez.GattCharacteristic1");
    EXPECT_EQ(mObjects.FindMeasurement(kStrap), "");
}

TEST_F(BluezObjectsTest, PropertyThatIsInvalidatedCountsAsFalse)
{
    AddAdapter("hci0", true);
    Add(kStrap, "'org.bluez.Device1': {'Connected': <true>, 'ServicesResolved': <true>}");

    Change(kStrap, "org.bluez.Device1", "", "'Connected'");
    Change("/org/bluez/hci0", "org.bluez.Adapter1", "", "'Powered'");

    EXPECT_FALSE(mObjects.FindDevice(kStrap)->mIsConnected);
    EXPECT_TRUE(mObjects.FindDevice(kStrap)->mIsResolved);
    EXPECT_EQ(mObjects.PoweredAdapter(""), "");
}

TEST_F(BluezObjectsTest, PropertiesOfOtherTypesCountAsFalseOrEmpty)
{
    Add("/org/bluez/hci0", "'org.bluez.Adapter1': {'Powered': <'yes'>}");
    Add(kStrap, "'org.bluez.Device1': {'Address': <7>, 'UUIDs': <'0000180d'>,"
                " 'Connected': <uint32 1>, 'ServicesResolved': <[true]>}");
    Add(std::string(kStrap) + "/char", "'org.bluez.GattCharacteristic1': {'UUID': <@ay [42]>}");

    EXPECT_EQ(mObjects.PoweredAdapter(""), "");
    const BluezObjects::Device *device = mObjects.FindDevice(kStrap);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->mAddress, "");
    EXPECT_FALSE(device->mIsStrap || device->mIsConnected || device->mIsResolved);
    EXPECT_EQ(mObjects.FindMeasurement(kStrap), "");
}

TEST_F(BluezObjectsTest, ObjectsThatWereNeverAddedAreNotMadeUp)
{
    Change(kStrap, "org.bluez.Device1", "'Connected': <true>");
    Change("/org/bluez/hci0", "org.bluez.Adapter1", "'Powered': <true>");
    Remove("/org/bluez/hci7", "org.bluez.Adapter1");
    Add("/", "'org.example.Other': {'Powered': <true>}");

    EXPECT_EQ(mObjects.FindDevice(kStrap), nullptr);
    EXPECT_FALSE(mObjects.HasAdapter(""));
    EXPECT_THAT(mObjects.FindStraps({}), IsEmpty());
}

} // namespace ParvanePlatform
