#include "BluezAdapter.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "BusTest.h"

namespace ParvanePlatform {

namespace {

constexpr char kService[] = "org.bluez";
constexpr char kInterface[] = "org.bluez.Adapter1";

} // namespace

/** The adapters of a mocked BlueZ. The mock gives hci0 the address 00:01:02:03:04:05. */
class BluezAdapterTest : public BusTest
{
protected:
    void AddAdapter(const std::string &name) const
    {
        mBus->Call(kService, "/", "org.bluez.Mock", "AddAdapter", "('" + name + "', 'watch')");
    }

    void Set(const std::string &name, const std::string &property, const std::string &value) const
    {
        mBus->SetProperty(kService, "/org/bluez/" + name, kInterface, property, value);
    }

    /** Asks; 0 makes the address the result's text, else the code. */
    static std::string Ask(BluezAdapter &adapter)
    {
        std::string address = "untouched";
        const int result = adapter.GetAddress(address);
        EXPECT_EQ(result != 0, address == "untouched");
        return result == 0 ? address : std::to_string(result);
    }

    std::shared_ptr<SystemBus> mSystemBus = std::make_shared<SystemBus>();
    BluezAdapter mFirst{mSystemBus, BluetoothSettings()};
};

TEST_F(BluezAdapterTest, AddressIsThatOfTheFirstAdapterByNumber)
{
    const auto bluez = mBus->Run("bluez5");
    AddAdapter("hci10");
    AddAdapter("hci2");
    EXPECT_EQ(Ask(mFirst), "02:03:04:05:06:07");
    AddAdapter("hci0");
    EXPECT_EQ(Ask(mFirst), "00:01:02:03:04:05");
}

TEST_F(BluezAdapterTest, NameChoosesTheAdapter)
{
    const auto bluez = mBus->Run("bluez5");
    AddAdapter("hci0");
    AddAdapter("hci1");
    BluetoothSettings settings;
    settings.mName = "hci1";
    BluezAdapter adapter(mSystemBus, settings);
    EXPECT_EQ(Ask(adapter), "01:02:03:04:05:06");
    settings.mName = "hci7";
    BluezAdapter other(mSystemBus, settings);
    StderrCapture capture;
    EXPECT_EQ(Ask(other), "-32508");
    EXPECT_EQ(capture.Take(), "W platform: bluetooth: no address: no adapter hci7\n");
}

TEST_F(BluezAdapterTest, AdapterWithoutPowerHasACodeOfItsOwn)
{
    const auto bluez = mBus->Run("bluez5");
    AddAdapter("hci0");
    Set("hci0", "Powered", "false");
    StderrCapture capture;
    EXPECT_EQ(Ask(mFirst), "-32510");
    EXPECT_EQ(Ask(mFirst), "-32510");
    Set("hci0", "Powered", "true");
    EXPECT_EQ(Ask(mFirst), "00:01:02:03:04:05");
    EXPECT_EQ(capture.Take(), "W platform: bluetooth: no address: /org/bluez/hci0 is not powered\n"
                              "I platform: bluetooth: the adapter's address can be read again\n");
}

TEST_F(BluezAdapterTest, AdapterThatHasNoAddressForWantOfPowerIsWithoutPower)
{
    const auto bluez = mBus->Run("bluez5");
    AddAdapter("hci0");
    Set("hci0", "Powered", "false");
    Set("hci0", "Address", "'00:00:00:00:00:00'");
    const StderrCapture quiet;
    EXPECT_EQ(Ask(mFirst), "-32510");
}

TEST_F(BluezAdapterTest, AddressIsUpperCase)
{
    const auto bluez = mBus->Run("bluez5");
    AddAdapter("hci0");
    Set("hci0", "Address", "'aa:bb:cc:dd:ee:0f'");
    EXPECT_EQ(Ask(mFirst), "AA:BB:CC:DD:EE:0F");
}

TEST_F(BluezAdapterTest, WhatIsNoAddressIsAFailure)
{
    const auto bluez = mBus->Run("bluez5");
    AddAdapter("hci0");
    const StderrCapture quiet;
    for (const char *value :
         {"''", "'AA:BB:CC:DD:EE'", "'AA:BB:CC:DD:EE:GG'", "'00:00:00:00:00:00'", "7"}) {
        Set("hci0", "Address", value);
        EXPECT_EQ(Ask(mFirst), "-32508") << value;
    }
}

TEST_F(BluezAdapterTest, AdapterThatGoesAndReturnsIsFollowed)
{
    const auto bluez = mBus->Run("bluez5");
    const StderrCapture quiet;
    EXPECT_EQ(Ask(mFirst), "-32508");
    AddAdapter("hci0");
    EXPECT_EQ(Ask(mFirst), "00:01:02:03:04:05");
    mBus->Call(kService, "/", "org.bluez.Mock", "RemoveAdapter", "('hci0',)");
    EXPECT_EQ(Ask(mFirst), "-32508");
}

TEST_F(BluezAdapterTest, BluezThatGoesAndReturnsIsFollowed)
{
    auto bluez = mBus->Run("bluez5");
    AddAdapter("hci0");
    EXPECT_EQ(Ask(mFirst), "00:01:02:03:04:05");
    bluez.reset();
    const StderrCapture quiet;
    EXPECT_EQ(Ask(mFirst), "-32508");
    bluez = mBus->Run("bluez5");
    AddAdapter("hci0");
    EXPECT_EQ(Ask(mFirst), "00:01:02:03:04:05");
}

TEST_F(BluezAdapterTest, NoBusIsAFailureUntilThereIsOne)
{
    mBus->Stop();
    const StderrCapture quiet;
    EXPECT_EQ(Ask(mFirst), "-32508");
    mBus->Start();
    const auto bluez = mBus->Run("bluez5");
    AddAdapter("hci0");
    EXPECT_TRUE(Eventually([this] { return Ask(mFirst) == "00:01:02:03:04:05"; }));
}

TEST_F(BluezAdapterTest, BluezThatDoesNotAnswerHoldsNobodyUp)
{
    const auto bluez = mBus->Run("bluez5");
    bluez->Pause();
    const StderrCapture quiet;
    const gint64 startUs = g_get_monotonic_time();
    EXPECT_EQ(Ask(mFirst), "-32508");
    // Half a second is what it may take; ten seconds leave a loaded machine its time.
    EXPECT_LT(g_get_monotonic_time() - startUs, 10'000'000);
}

} // namespace ParvanePlatform
