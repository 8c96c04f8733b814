#include "BluetoothAdapter.h"

#include <memory>
#include <string>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "BluetoothAddress.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

/** A real adapter that answers as the test says. */
class FakeAdapter : public AddressSource
{
public:
    explicit FakeAdapter(int result) : mResult(result) {}

    int GetAddress(std::string &address) override
    {
        if (mResult == 0) {
            address = "00:01:02:03:04:05";
        }
        return mResult;
    }

private:
    int mResult;
};

} // namespace

class BluetoothAdapterTest : public testing::Test
{
protected:
    std::string AddressOf(BluetoothAdapter &adapter)
    {
        std::string address;
        adapter.Initialize();
        EXPECT_EQ(adapter.GetAddress(address), 0);
        EXPECT_EQ(adapter.Deinitialize(), 0);
        return address;
    }

    TemporaryDirectory mDirectory;
};

TEST_F(BluetoothAdapterTest, ConfiguredAddressWins)
{
    WriteFile(mDirectory / "bluetooth-address", "02:00:00:00:00:01\n");
    BluetoothAdapter adapter("AA:BB:CC:DD:EE:FF", mDirectory.Path());
    EXPECT_EQ(AddressOf(adapter), "AA:BB:CC:DD:EE:FF");
}

TEST_F(BluetoothAdapterTest, AddressIsMadeOnceAndKept)
{
    BluetoothAdapter first("", mDirectory.Path());
    const std::string address = AddressOf(first);
    EXPECT_EQ(NormaliseBluetoothAddress(address), address);
    EXPECT_EQ(ReadFile(mDirectory / "bluetooth-address"), address + "\n");
    EXPECT_EQ(AddressOf(first), address);

    BluetoothAdapter second("", mDirectory.Path());
    EXPECT_EQ(AddressOf(second), address);
}

TEST_F(BluetoothAdapterTest, MadeAddressesAreLocalOnesOfSingleDevices)
{
    for (int i = 0; i < 64; ++i) {
        const std::string address = MakeRandomBluetoothAddress();
        const unsigned long octet = std::stoul(address.substr(0, 2), nullptr, 16);
        EXPECT_EQ(octet & 3U, 2U) << address;
    }
    EXPECT_NE(MakeRandomBluetoothAddress(), MakeRandomBluetoothAddress());
}

TEST_F(BluetoothAdapterTest, KeptAddressThatIsNoneIsReplacedWithAnErrorLine)
{
    WriteFile(mDirectory / "bluetooth-address", "nonsense");
    BluetoothAdapter adapter("", mDirectory.Path());
    StderrCapture capture;
    const std::string address = AddressOf(adapter);
    EXPECT_EQ(capture.Take(), "E platform: " + (mDirectory / "bluetooth-address") +
                                  " holds no Bluetooth address: a new one is made\n");
    EXPECT_EQ(ReadFile(mDirectory / "bluetooth-address"), address + "\n");
}

TEST_F(BluetoothAdapterTest, AddressThatCannotBeKeptIsThatOfTheRun)
{
    BluetoothAdapter adapter("", mDirectory / "none");
    StderrCapture capture;
    const std::string address = AddressOf(adapter);
    EXPECT_EQ(NormaliseBluetoothAddress(address), address);
    EXPECT_EQ(AddressOf(adapter), address);
    EXPECT_EQ(capture.Take(), "E platform: cannot keep the Bluetooth address in " +
                                  (mDirectory / "none/bluetooth-address") +
                                  ": No such file or directory; it is " + address +
                                  " for this run\n");
}

TEST_F(BluetoothAdapterTest, AddressThatCannotBeReadIsAFailure)
{
    ASSERT_EQ(mkdir((mDirectory / "bluetooth-address").c_str(), 0700), 0);
    BluetoothAdapter adapter("", mDirectory.Path());
    adapter.Initialize();
    std::string address;
    StderrCapture capture;
    EXPECT_EQ(adapter.GetAddress(address), -32508);
    EXPECT_EQ(capture.Take(), "E platform: cannot read " + (mDirectory / "bluetooth-address") +
                                  ": Is a directory\n");
}

TEST_F(BluetoothAdapterTest, UsersAreCounted)
{
    BluetoothAdapter adapter("AA:BB:CC:DD:EE:FF", mDirectory.Path());
    std::string address;
    EXPECT_EQ(adapter.GetAddress(address), -32511);
    EXPECT_EQ(adapter.Deinitialize(), -32511);
    adapter.Initialize();
    adapter.Initialize();
    EXPECT_EQ(adapter.Deinitialize(), 0);
    EXPECT_EQ(adapter.GetAddress(address), 0);
    EXPECT_EQ(adapter.Deinitialize(), 0);
    EXPECT_EQ(adapter.GetAddress(address), -32511);
}

TEST_F(BluetoothAdapterTest, RealAdapterWinsOverWhatIsConfiguredOrKept)
{
    BluetoothAdapter adapter("AA:BB:CC:DD:EE:FF", mDirectory.Path(),
                             std::make_unique<FakeAdapter>(0));
    EXPECT_EQ(AddressOf(adapter), "00:01:02:03:04:05");
    EXPECT_FALSE(FileExists(mDirectory / "bluetooth-address"));
}

TEST_F(BluetoothAdapterTest, FailureOfARealAdapterIsPassedOn)
{
    BluetoothAdapter adapter("AA:BB:CC:DD:EE:FF", mDirectory.Path(),
                             std::make_unique<FakeAdapter>(-32510));
    std::string address = "untouched";
    adapter.Initialize();
    EXPECT_EQ(adapter.GetAddress(address), -32510);
    EXPECT_EQ(address, "untouched");
}

TEST_F(BluetoothAdapterTest, RealAdapterIsNotAskedBeforeItIsInitialised)
{
    BluetoothAdapter adapter("", mDirectory.Path(), std::make_unique<FakeAdapter>(0));
    std::string address;
    EXPECT_EQ(adapter.GetAddress(address), -32511);
}

} // namespace ParvanePlatform
