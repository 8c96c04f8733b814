#include "BluezSession.h"

#include <algorithm>
#include <array>
#include <utility>

#include "BluezNames.h"
#include "Log.h"
#include "Printable.h"
#include "Variants.h"

namespace ParvaneGateway {

namespace {

constexpr Registration::Methods kApplication = {Bluez::kGattManager, "RegisterApplication",
                                                "UnregisterApplication", GattObjects::kApplication};
constexpr Registration::Methods kAdvertisement = {
    Bluez::kAdvertisingManager, "RegisterAdvertisement", "UnregisterAdvertisement",
    GattObjects::kAdvertisementPath};

/** An error of no meaning to BlueZ, which then goes the way without descriptors. */
constexpr char kNoDescriptor[] = "org.freedesktop.DBus.Error.NotSupported";

/** Why a phone was refused, as it is counted; empty where the seat has counted it. */
std::string KindOf(const std::string &code)
{
    if (code == BluezSession::kAnotherPhone) {
        return "a second phone over Bluetooth";
    }
    if (code == BluezSession::kWatchAway) {
        return {};
    }
    return code == BluezSession::kSmallMtu ? "the MTU is too small" : "not bonded";
}

std::string ReasonOf(const std::string &code)
{
    if (code == BluezSession::kAnotherPhone) {
        return "another phone is connected";
    }
    if (code == BluezSession::kWatchAway) {
        return "the watch service takes no phone";
    }
    if (code == BluezSession::kSmallMtu) {
        return "the MTU of its connection is too small: an entry of the sensor list takes " +
               std::to_string(BluetoothPhone::kLargestPacketBytes + BluetoothPhone::kHeaderBytes);
    }
    return "it is not bonded with the watch";
}

std::string ReasonOf(PhoneEnd why)
{
    switch (why) {
    case PhoneEnd::WatchAway:
        return "the watch service has closed the link";
    case PhoneEnd::Stopping:
        return "the gateway ends";
    case PhoneEnd::TooMuch:
        return "it sends more than the watch takes";
    }
    return {};
}

} // namespace

BluezSession::Service::Service(const Parvane::BusScope &bluez, const std::string &adapter,
                               std::chrono::milliseconds firstPause,
                               const Registration::Changed &changed)
    : mAdapter(adapter),
      mApplication(bluez, adapter, kApplication, firstPause, changed),
      mAdvertisement(bluez, adapter, kAdvertisement, firstPause, changed)
{}

BluezSession::BluezSession(GDBusConnection *connection, const std::string &owner,
                           const BluetoothSettings &settings, const BluetoothTimes &times,
                           PhoneSeat &seat, BluezSessionEvents &events)
    : mSettings(settings),
      mTimes(times),
      mSeat(seat),
      mEvents(events),
      mLoadPause(times.mFirstPause),
      mBluez(connection, owner),
      mObjects(connection, settings.mIsAuthenticated, *this)
{
    mBluez.Subscribe(
        {Bluez::kObjectManager, "InterfacesAdded", "(oa{sa{sv}})"},
        [this](const std::string & /*path*/, GVariant *arguments) { OnAdded(arguments); });
    mBluez.Subscribe(
        {Bluez::kObjectManager, "InterfacesRemoved", "(oas)"},
        [this](const std::string & /*path*/, GVariant *arguments) { OnRemoved(arguments); });
    for (const char *interface : {Bluez::kAdapter, Bluez::kDevice}) {
        mBluez.Subscribe(
            {Bluez::kProperties, "PropertiesChanged", "(sa{sv}as)", interface},
            [this](const std::string &path, GVariant *arguments) { OnChanged(path, arguments); });
    }
    Load();
}

void BluezSession::Load()
{
    mBluez.Call("/", Bluez::kObjectManager, "GetManagedObjects", nullptr, "(a{oa{sa{sv}}})",
                [this](GVariant *reply, const GError *error) {
                    if (error != nullptr) {
                        mEvents.OnState("BlueZ tells no objects: " + Parvane::BusReason(error),
                                        true);
                        mReload = Parvane::LoopSource::After(mLoadPause, [this] { Load(); });
                        mLoadPause = std::min(2 * mLoadPause, Registration::kLongestPause);
                        return;
                    }
                    mDevices.Load(Parvane::Child(reply, 0).get());
                    mIsLoaded = true;
                    Advance();
                });
}

void BluezSession::OnAdded(GVariant *arguments)
{
    if (mIsLoaded) {
        mDevices.Add(Parvane::TextChild(arguments, 0), Parvane::Child(arguments, 1).get());
        Advance();
    }
}

void BluezSession::OnRemoved(GVariant *arguments)
{
    if (mIsLoaded) {
        const std::string path = Parvane::TextChild(arguments, 0);
        mDevices.Remove(path, Parvane::Child(arguments, 1).get());
        if (mDevices.GetDevice(path) == nullptr) {
            mSubscribers.erase(path);
        }
        Advance();
    }
}

void BluezSession::OnChanged(const std::string &path, GVariant *arguments)
{
    if (mIsLoaded) {
        mDevices.Change(path, Parvane::TextChild(arguments, 0), Parvane::Child(arguments, 1).get());
        Advance();
    }
}

void BluezSession::Advance()
{
    // Each step may lead to others: the seat tells of its changes in the call.
    if (!mIsLoaded || std::exchange(mIsAdvancing, true)) {
        return;
    }
    ChooseAdapter();
    TakeHeld();
    CheckPhone();
    CheckOthers();
    if (mService) {
        const BluezDevices::Adapter *adapter = mDevices.GetAdapter(mService->mAdapter);
        mService->mApplication.Want(true);
        mObjects.SetName(mSettings.mName.empty() ? adapter->mAlias : mSettings.mName);
        mService->mAdvertisement.Want(mService->mApplication.IsOn() && adapter->mIsPowered &&
                                      !mSeat.IsTaken());
    }
    mIsAdvancing = false;
    TellState();
}

void BluezSession::ChooseAdapter()
{
    const BluezDevices::Adapter *present =
        mService ? mDevices.GetAdapter(mService->mAdapter) : nullptr;
    const bool isThere = present != nullptr && present->mServes && present->mAdvertises;
    if (isThere && present->mIsPowered) {
        return;
    }
    const std::string adapter = mDevices.FindAdapter(mSettings.mAdapter);
    if (isThere && (adapter == mService->mAdapter || !mDevices.GetAdapter(adapter)->mIsPowered)) {
        return;
    }
    Leave();
    mService.reset();
    if (!adapter.empty()) {
        mService =
            std::make_unique<Service>(mBluez, adapter, mTimes.mFirstPause, [this] { Advance(); });
    }
}

void BluezSession::CheckPhone()
{
    if (mPhone && !IsConnected(mPhone->Device())) {
        Leave();
    }
}

void BluezSession::CheckOthers()
{
    std::erase_if(mDismissed, [this](const std::string &device) { return !IsConnected(device); });
    if (!mPhone) {
        return;
    }
    for (const std::string &device : mSubscribers) {
        if (device != mPhone->Device() && IsConnected(device) && !mDismissed.contains(device)) {
            mEvents.OnRefused(KindOf(kAnotherPhone));
            Dismiss(device, ReasonOf(kAnotherPhone));
        }
    }
    if (!IsAlone()) {
        mPhone->CloseDescriptors();
    }
    if (mPhone) {
        mPhone->Hold(!mDismissed.empty());
    }
}

void BluezSession::TellState()
{
    const std::string named =
        mSettings.mAdapter.empty() ? "Bluetooth adapter" : "adapter " + mSettings.mAdapter;
    if (!mService) {
        mEvents.OnState("there is no " + named, true);
        return;
    }
    const std::string adapter = mService->mAdapter.substr(mService->mAdapter.rfind('/') + 1);
    const bool isPowered = mDevices.GetAdapter(mService->mAdapter)->mIsPowered;
    for (const Registration *registration : {&mService->mApplication, &mService->mAdvertisement}) {
        if (!registration->Problem().empty()) {
            mEvents.OnState(adapter + " refuses " + registration->Problem(), true);
            return;
        }
    }
    if (mSeat.IsTaken()) {
        mEvents.OnState("rests while a phone is connected", false);
    } else if (!isPowered) {
        mEvents.OnState(adapter + " is not powered", true);
    } else if (mService->mAdvertisement.IsOn()) {
        mEvents.OnState("advertised on " + adapter, false);
    }
}

bool BluezSession::IsConnected(const std::string &device) const
{
    const BluezDevices::Device *found = mDevices.GetDevice(device);
    return found != nullptr && found->mIsConnected;
}

bool BluezSession::IsAlone() const
{
    return std::none_of(
        mDevices.Devices().begin(), mDevices.Devices().end(), [this](const auto &entry) {
            return entry.first.starts_with(mService->mAdapter + '/') && entry.second.mIsConnected &&
                   entry.second.mIsPaired && (!mPhone || entry.first != mPhone->Device());
        });
}

void BluezSession::OnGattCall(GattCall call)
{
    if (call.Sender() != mBluez.Peer() || !mService) {
        call.Refuse("org.freedesktop.DBus.Error.AccessDenied", "this is for BlueZ");
    } else if (call.GetKind() == GattCall::Kind::StartNotify) {
        call.Succeed(); // of whom it is only its first packet tells
    } else if (call.GetKind() == GattCall::Kind::StopNotify) {
        call.Succeed();
        if (mPhone && !mPhone->HasNotifyDescriptor()) {
            Leave();
        }
    } else if (call.IsPart()) {
        call.Refuse(call.HasOffset() ? Bluez::kInvalidOffset : Bluez::kNotSupported,
                    "a packet is one value");
    } else if (call.GetKind() == GattCall::Kind::WriteValue && call.Value().empty()) {
        call.Refuse(Bluez::kInvalidLength, "a packet has bytes");
    } else {
        Take(std::move(call));
    }
}

void BluezSession::OnAdvertisementReleased()
{
    if (mService) {
        mService->mAdvertisement.Lost();
    }
}

void BluezSession::Take(GattCall call)
{
    const BluezDevices::Device *device = mDevices.GetDevice(call.Device());
    const bool isBehind = std::any_of(mHeld.begin(), mHeld.end(), [&](const GattCall &held) {
        return held.Device() == call.Device();
    });
    // The first words of a phone may overtake the news of its pairing.
    const bool awaitsBond =
        device != nullptr && !device->IsBonded() && !mDismissed.contains(call.Device());
    if (isBehind || awaitsBond) {
        mHeld.push_back(std::move(call));
        if (!mHeldLimit.IsActive()) {
            mHeldLimit = Parvane::LoopSource::After(mTimes.mBondingTime, [this] { RefuseHeld(); });
        }
        return;
    }
    if (const char *code = Admit(call); code != nullptr) {
        Refuse(std::move(call), code);
    } else if (mPhone) {
        Serve(std::move(call));
    } // else BlueZ has said that it is not connected any more, and nobody awaits an answer
    Advance();
}

const char *BluezSession::Admit(const GattCall &call)
{
    if (call.GetKind() == GattCall::Kind::AcquireNotify) {
        mSubscribers.insert(call.Device());
    }
    const BluezDevices::Device *device = mDevices.GetDevice(call.Device());
    if (device == nullptr || !device->IsBonded()) {
        return kNotBonded;
    }
    if (mDismissed.contains(call.Device())) {
        return kAnotherPhone;
    }
    if (mPhone) {
        return mPhone->Device() == call.Device() ? nullptr : kAnotherPhone;
    }
    constexpr std::size_t kLeastMtu =
        BluetoothPhone::kLargestPacketBytes + BluetoothPhone::kHeaderBytes;
    if (call.Mtu() != 0 && call.Mtu() < kLeastMtu) {
        return kSmallMtu;
    }
    const PhoneIdentity identity = {"bluetooth", Parvane::Printable(device->mAddress)};
    BluetoothPhoneEvents &events = *this;
    mPhone = std::make_unique<BluetoothPhone>(
        mSeat, mObjects, mBluez, BluetoothPhone::Peer{call.Device(), call.Mtu(), identity}, events);
    const PhoneSeat::Answer answer = mPhone->Sit();
    if (!mPhone) {
        return nullptr; // seated, and left in the same moment
    }
    if (answer == PhoneSeat::Answer::Seated) {
        mSubscribers.insert(call.Device());
        Parvane::LogInfo("bluetooth: " + NameOf(call.Device()) + " is connected, with an MTU of " +
                         std::to_string(call.Mtu()));
        return nullptr;
    }
    mPhone.reset();
    return answer == PhoneSeat::Answer::AnotherPhone ? kAnotherPhone : kWatchAway;
}

void BluezSession::Serve(GattCall call)
{
    mPhone->SetMtu(call.Mtu());
    if (call.GetKind() != GattCall::Kind::WriteValue) {
        ServeDescriptor(std::move(call));
        return;
    }
    const std::vector<std::uint8_t> value = call.Value();
    call.Succeed();
    mPhone->Write(value); // may end it
}

void BluezSession::ServeDescriptor(GattCall call)
{
    Parvane::UniqueFd end;
    if (call.Mtu() != 0 && IsAlone()) {
        end = call.GetKind() == GattCall::Kind::AcquireWrite ? mPhone->OpenWrite()
                                                             : mPhone->OpenNotify();
    }
    if (end) {
        call.Succeed(end);
    } else {
        call.Refuse(kNoDescriptor, "not now");
    }
}

void BluezSession::Refuse(GattCall call, const char *code)
{
    const std::string device = call.Device();
    call.Refuse(Bluez::kFailed, code);
    if (!mDismissed.contains(device)) {
        mEvents.OnRefused(KindOf(code));
        Dismiss(device, ReasonOf(code));
    }
}

void BluezSession::TakeHeld()
{
    std::deque<GattCall> held = std::exchange(mHeld, {});
    for (GattCall &call : held) {
        const BluezDevices::Device *device = mDevices.GetDevice(call.Device());
        if (device != nullptr && device->mIsConnected && device->IsBonded()) {
            Take(std::move(call));
        } else if (device != nullptr && device->mIsConnected) {
            mHeld.push_back(std::move(call));
        } // else its phone has gone
    }
    if (mHeld.empty()) {
        mHeldLimit.Remove();
    }
}

void BluezSession::RefuseHeld()
{
    mHeldLimit.Remove();
    std::deque<GattCall> held = std::exchange(mHeld, {});
    for (GattCall &call : held) {
        Refuse(std::move(call), kNotBonded);
    }
    Advance();
}

void BluezSession::Dismiss(const std::string &device, const std::string &reason)
{
    Parvane::LogWarning("bluetooth: " + NameOf(device) + " is refused: " + reason);
    if (!IsConnected(device)) {
        return;
    }
    mDismissed.insert(device);
    mBluez.Call(device, Bluez::kDevice, "Disconnect", nullptr, "()",
                [this, device](GVariant * /*reply*/, const GError *error) {
                    if (error != nullptr) {
                        mDismissed.erase(device); // it was not connected any more
                        Advance();
                    }
                });
}

void BluezSession::Leave()
{
    if (const std::unique_ptr<BluetoothPhone> phone = std::move(mPhone); phone) {
        Parvane::LogInfo("bluetooth: " + NameOf(phone->Device()) + " has gone");
    }
    Advance();
}

void BluezSession::OnGivenUp(PhoneEnd why)
{
    if (!mPhone) {
        return; // it is leaving
    }
    mGivenUp = std::move(mPhone);
    mRemoval = Parvane::LoopSource::Post([this] { mGivenUp.reset(); });
    Dismiss(mGivenUp->Device(), ReasonOf(why));
    Advance();
}

std::string BluezSession::NameOf(const std::string &device) const
{
    const BluezDevices::Device *found = mDevices.GetDevice(device);
    if (found == nullptr) {
        return "a phone";
    }
    const std::string address = Parvane::Printable(found->mAddress);
    return found->mAlias.empty() ? address
                                 : Parvane::Printable(found->mAlias) + " (" + address + ")";
}

} // namespace ParvaneGateway
