#include <algorithm>
#include <array>
#include <deque>
#include <memory>
#include <sys/socket.h>

#include "BluetoothRoad.h"
#include "FakeBluez.h"
#include "FakeWatch.h"
#include "Input.h"
#include "PhoneSeat.h"
#include "PrivateSystemBus.h"
#include "Require.h"
#include "TestLoop.h"

// What phones write over Bluetooth, and whatever else BlueZ asks of the characteristics meanwhile, in any order: through
// a bus, to the gateway's road with a watch behind it. Each step of an input is a byte that says what is done, and what
// that reads.

using namespace ParvaneGateway;
using ParvaneFuzz::Require;

namespace {

constexpr char kDevice[] = "org.bluez.Device1";
constexpr int kMostSteps = 24;

/** What outlives an input. */
struct World
{
    World()
    {
        mBluez.AddAdapter("hci0");
        mRoad.Open();
        Require(RunUntil([this] { return mBluez.HasApplication(); }), "the road is there");
    }

    static BluetoothTimes Times()
    {
        BluetoothTimes times;
        times.mFirstPause = times.mBondingTime = std::chrono::milliseconds(1);
        return times;
    }

    TestFolder mFolder;
    PrivateSystemBus mBus;
    FakeWatch mWatch{mFolder.Path("link.sock")};
    PhoneSeat mSeat{mFolder.Path("link.sock")};
    FakeBluez mBluez{mBus.Address()};
    BluetoothRoad mRoad{{}, mSeat, Times()};
};

/** Two devices and what they do; both go with the object. */
class Visit
{
public:
    explicit Visit(World &world)
        : mWorld(world),
          mDevices{world.mBluez.AddDevice("hci0", "C0:FF:EE:00:00:01", true),
                   world.mBluez.AddDevice("hci0", "C0:FF:EE:00:00:02", true)}
    {
        world.mBluez.SetConnected(mDevices[1], false);
    }

    ~Visit()
    {
        for (const std::string &device : mDevices) {
            mWorld.mBluez.SetConnected(device, false);
            mWorld.mBluez.Remove(device);
        }
        // What the road has heard before this is done when it is answered.
        Finish(mWorld.mBluez.StopNotify());
        Require(RunUntil([this] { return !mWorld.mSeat.IsTaken(); }), "the seat is free again");
    }

    Visit(const Visit &) = delete;
    Visit &operator=(const Visit &) = delete;

    void Step(ParvaneFuzz::Input &input)
    {
        constexpr int kKinds = 9;
        FakeBluez &bluez = mWorld.mBluez;
        const std::uint8_t what = input.Byte();
        const std::string &device = mDevices[(what & 0x80U) != 0 ? 1 : 0];
        switch ((what & 0x7FU) % kKinds) {
        case 0:
            mNotify = Finish(bluez.AcquireNotify(device, Mtu(input)));
            break;
        case 1:
            mWrite = Finish(bluez.AcquireWrite(device, Mtu(input)));
            break;
        case 2:
            WriteValue(device, input);
            break;
        case 3:
            Send(input.Bytes());
            break;
        case 4:
            mWorld.mWatch.Send(input.Bytes());
            break;
        case 5:
            bluez.SetConnected(device, input.Byte() % 2 == 0);
            break;
        case 6:
            bluez.Set(device, kDevice, "Bonded", g_variant_new_boolean(input.Byte() % 2));
            break;
        case 7:
            Finish(input.Byte() % 2 == 0 ? bluez.StartNotify() : bluez.StopNotify());
            break;
        default:
            (input.Byte() % 2 == 0 ? mNotify : mWrite).Reset();
            break;
        }
        TakeWhatTheWatchHas();
    }

private:
    static std::uint16_t Mtu(ParvaneFuzz::Input &input)
    {
        return static_cast<std::uint16_t>(input.Number(2));
    }

    /** @return the descriptor that it has come to, if any */
    static Parvane::UniqueFd Finish(const FakeBluez::OutcomePtr &outcome)
    {
        Require(RunUntil([&] { return outcome->mIsDone; }), "every call is answered");
        return std::move(outcome->mFd);
    }

    void WriteValue(const std::string &device, ParvaneFuzz::Input &input)
    {
        static constexpr std::array kOptions = {"", "'offset': <uint16 3>", "'type': <'reliable'>",
                                                "'prepare-authorize': <true>",
                                                "'type': <'command'>"};
        const std::uint16_t mtu = Mtu(input);
        const char *options = kOptions.at(input.Byte() % kOptions.size());
        const Bytes value = input.Bytes();
        const auto outcome = mWorld.mBluez.WriteValue(device, value, mtu, options);
        Finish(outcome);
        if (outcome->mError.empty()) {
            Require(!value.empty(), "an empty value is no packet");
            mWritten.push_back(value);
        }
    }

    void Send(const Bytes &value)
    {
        if (mWrite && ::send(mWrite.Get(), value.data(), value.size(), MSG_NOSIGNAL) >= 0) {
            mWritten.push_back(value);
        }
    }

    void TakeWhatTheWatchHas()
    {
        RunDue();
        mWorld.mWatch.Accept();
        while (const auto packet = mWorld.mWatch.Receive()) {
            // What was written last may be lost, when its phone goes or is refused.
            const auto found = std::find(mWritten.begin(), mWritten.end(), *packet);
            Require(found != mWritten.end(), "the watch has what was written, in its order");
            mWritten.erase(mWritten.begin(), found + 1);
        }
    }

    World &mWorld;
    std::array<std::string, 2> mDevices;
    Parvane::UniqueFd mNotify;
    Parvane::UniqueFd mWrite;
    std::deque<Bytes> mWritten;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (!PrivateSystemBus::WhyNot().empty()) {
        return 0;
    }
    static World world;
    ParvaneFuzz::Input input(data, size);
    Visit visit(world);
    for (int step = 0; step < kMostSteps && !input.IsAtEnd(); ++step) {
        visit.Step(input);
    }
    return 0;
}
