#include "StrapSession.h"

#include <algorithm>
#include <vector>

#include "Variants.h"

namespace ParvanePlatform {

namespace {

constexpr char kRoot[] = "/";
constexpr char kObjectManager[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kNoReply[] = "()";
constexpr char kStopSearch[] = "StopDiscovery";

/**
 * What BlueZ shall search for: low-energy devices, and unless the settings name one, those that say
 * that they have the heart-rate service.
 */
GVariant *DiscoveryFilter(const BleSettings &settings)
{
    GVariantBuilder filter;
    g_variant_builder_init(&filter, G_VARIANT_TYPE_VARDICT);
    if (settings.mDevice.empty()) {
        const char *uuids[] = {Bluez::kHeartRateService, nullptr};
        g_variant_builder_add(&filter, "{sv}", "UUIDs", g_variant_new_strv(uuids, -1));
    }
    g_variant_builder_add(&filter, "{sv}", "Transport", g_variant_new_string("le"));
    return g_variant_new("(a{sv})", &filter);
}

} // namespace

StrapSession::StrapSession(GDBusConnection *connection, const std::string &owner,
                           const BleSettings &settings, RetryTimer &retry, StrapObserver &observer)
    : mSettings(settings),
      mRetry(retry),
      mObserver(observer),
      mOwner(owner),
      mScope(connection, owner)
{
    mScope.Subscribe(
        {kObjectManager, "InterfacesAdded", "(oa{sa{sv}})"},
        [this](const std::string & /*path*/, GVariant *arguments) { OnAdded(arguments); });
    mScope.Subscribe(
        {kObjectManager, "InterfacesRemoved", "(oas)"},
        [this](const std::string & /*path*/, GVariant *arguments) { OnRemoved(arguments); });
    for (const char *interface : {Bluez::kAdapter, Bluez::kDevice, Bluez::kCharacteristic}) {
        mScope.Subscribe(
            {kProperties, "PropertiesChanged", "(sa{sv}as)", interface},
            [this](const std::string &path, GVariant *arguments) { OnChanged(path, arguments); });
    }
    LoadObjects();
}

StrapSession::~StrapSession()
{
    mRetry.Cancel();
    StopSearch();
    Release();
}

void StrapSession::Abandon()
{
    mSearch.reset();
    mMeasurement.clear();
    mIsOurConnection = false;
}

void StrapSession::LoadObjects()
{
    mScope.Call(kRoot, kObjectManager, "GetManagedObjects", nullptr, "(a{oa{sa{sv}}})",
                [this](GVariant *reply, const GError *error) {
                    if (reply == nullptr) {
                        TellTrouble("BlueZ does not answer: " + Parvane::BusReason(error));
                        mRetry.Schedule([this] { LoadObjects(); });
                        return;
                    }
                    mObjects.Load(Parvane::Child(reply, 0).get());
                    mAreObjectsLoaded = true;
                    Advance();
                });
}

void StrapSession::OnAdded(GVariant *arguments)
{
    // Changes until the objects are loaded are part of what is loaded.
    if (!mAreObjectsLoaded) {
        return;
    }
    const std::string path = Parvane::TextChild(arguments, 0);
    mObjects.Add(path, Parvane::Child(arguments, 1).get());
    // It may be tried again, and so may what it belongs to: a strap whose characteristic appears.
    std::erase_if(mAside, [&path](const std::string &aside) {
        return path == aside || path.starts_with(aside + '/');
    });
    Advance();
}

void StrapSession::OnRemoved(GVariant *arguments)
{
    if (mAreObjectsLoaded) {
        mObjects.Remove(Parvane::TextChild(arguments, 0), Parvane::Child(arguments, 1).get());
        Advance();
    }
}

void StrapSession::OnChanged(const std::string &path, GVariant *arguments)
{
    if (!mAreObjectsLoaded) {
        return;
    }
    const Parvane::VariantPtr changed = Parvane::Child(arguments, 1);
    if (path == mMeasurement) {
        OnMeasurementChanged(changed.get()); // last use of this: the session may have been ended
        return;
    }
    const BluezObjects::Device *device = mObjects.FindDevice(path);
    const bool wasConnected = device != nullptr && device->mIsConnected;
    const bool wasPowered = mObjects.IsPowered(path);
    mObjects.Change(path, Parvane::TextChild(arguments, 0), changed.get(),
                    Parvane::Child(arguments, 2).get());
    if (!wasConnected && device != nullptr && device->mIsConnected) {
        mAside.erase(path);
    }
    if (!wasPowered && mObjects.IsPowered(path)) {
        mAside.clear();
    }
    Advance();
}

void StrapSession::OnMeasurementChanged(GVariant *changed)
{
    gboolean isNotifying = TRUE;
    if (g_variant_lookup(changed, "Notifying", "b", &isNotifying) != FALSE &&
        isNotifying == FALSE) {
        OnNotificationsEnded();
        return;
    }
    const Parvane::VariantPtr value(
        g_variant_lookup_value(changed, "Value", G_VARIANT_TYPE_BYTESTRING));
    if (!value) {
        return;
    }
    gsize size = 0;
    const auto *bytes = static_cast<const std::uint8_t *>(
        g_variant_get_fixed_array(value.get(), &size, sizeof(std::uint8_t)));
    mHasSentValues = true;
    mRetry.Reset();
    mObserver.OnValue(std::span(bytes, size));
}

void StrapSession::OnNotificationsEnded()
{
    if (mStep != Step::Receiving) {
        return;
    }
    mMeasurement.clear();
    if (!mHasSentValues) {
        Fail("ends its notifications");
        return;
    }
    TellLoss();
    mStep = Step::Resolving;
    Advance();
}

void StrapSession::Advance()
{
    if (mSearch && !mObjects.IsPowered(mSearch->mAdapter)) {
        mSearch.reset(); // it has ended with the adapter
    }
    CheckStrap();
    if (mStrap.empty()) {
        Choose();
    } else if (mStep == Step::Resolving && mObjects.FindDevice(mStrap)->mIsResolved) {
        Subscribe();
    }
}

void StrapSession::CheckStrap()
{
    if (mStrap.empty()) {
        return;
    }
    const BluezObjects::Device *device = mObjects.FindDevice(mStrap);
    const bool isReachable =
        device != nullptr && mObjects.IsPowered(BluezObjects::AdapterOf(mStrap));
    if (!isReachable || (mStep != Step::Connecting && !device->mIsConnected)) {
        // A strap that goes before it has measured is not connected again at once and for ever.
        if (!mHasSentValues) {
            mAside.insert(mStrap);
        }
        TellLoss();
        Abandon(); // ended with the connection
        Release();
    } else if (!mMeasurement.empty() && mObjects.FindMeasurement(mStrap) != mMeasurement) {
        TellLoss();
        mMeasurement.clear();
        ++mAttempt;
        mStep = Step::Resolving; // still connected: the characteristic may come back
    }
}

void StrapSession::Choose()
{
    const std::vector<std::string> straps = mObjects.FindStraps(mSettings);
    if (straps.empty()) {
        StartSearch();
        return;
    }
    const auto next = std::find_if(straps.begin(), straps.end(),
                                   [this](const std::string &strap) { return !IsAside(strap); });
    if (next != straps.end()) {
        StopSearch();
        Take(*next);
        return;
    }
    PauseThenRetry();
    if (mSettings.mDevice.empty()) {
        StartSearch(); // BlueZ may remember straps that are at home while a new one is worn
    }
}

void StrapSession::Take(const std::string &strap)
{
    mRetry.Cancel();
    const BluezObjects::Device *device = mObjects.FindDevice(strap);
    mStrap = strap;
    mStrapName = "strap " + device->mAddress;
    if (!device->mIsConnected) {
        Connect();
        return;
    }
    mStep = Step::Resolving;
    if (device->mIsResolved) {
        Subscribe();
    }
}

void StrapSession::Connect()
{
    mStep = Step::Connecting;
    mIsOurConnection = true;
    mScope.Call(mStrap, Bluez::kDevice, "Connect", nullptr, kNoReply,
                [this, attempt = mAttempt](GVariant * /*reply*/, const GError *error) {
                    if (attempt == mAttempt) {
                        OnConnected(error);
                    }
                });
}

void StrapSession::OnConnected(const GError *error)
{
    if (error != nullptr) {
        // Without an answer of BlueZ the attempt may still be under way.
        mIsOurConnection = g_dbus_error_is_remote_error(error) == FALSE;
        Fail("cannot be connected: " + Parvane::BusReason(error));
    } else if (!mObjects.FindDevice(mStrap)->mIsConnected) {
        AskWhetherConnected();
    } else {
        mStep = Step::Resolving;
        Advance();
    }
}

void StrapSession::AskWhetherConnected()
{
    // BlueZ 5.66 never says that Connected has changed when the strap's own channel is open before
    // the controller's word of the connection has been read.
    mScope.Call(
        mStrap, kProperties, "GetAll", g_variant_new("(s)", Bluez::kDevice), "(a{sv})",
        [this, attempt = mAttempt](GVariant *reply, const GError * /*error*/) {
            if (attempt != mAttempt) {
                return;
            }
            if (reply != nullptr) {
                const Parvane::VariantPtr none(g_variant_ref_sink(g_variant_new_strv(nullptr, 0)));
                mObjects.Change(mStrap, Bluez::kDevice, Parvane::Child(reply, 0).get(), none.get());
            }
            if (!mObjects.FindDevice(mStrap)->mIsConnected) {
                Fail("cannot be connected: it is gone again");
                return;
            }
            mStep = Step::Resolving;
            Advance();
        });
}

void StrapSession::Subscribe()
{
    const std::string measurement = mObjects.FindMeasurement(mStrap);
    if (measurement.empty()) {
        if (!mHasSentValues) { // else it has just been told that the strap is lost
            TellTrouble(mStrapName + " has no heart-rate measurement");
        }
        mAside.insert(mStrap);
        const std::vector<std::string> straps = mObjects.FindStraps(mSettings);
        if (!std::all_of(straps.begin(), straps.end(),
                         [this](const std::string &strap) { return IsAside(strap); })) {
            Release();
            Choose();
        }
        return;
    }
    mStep = Step::Subscribing;
    mMeasurement = measurement;
    mHasSentValues = false;
    mScope.Call(mMeasurement, Bluez::kCharacteristic, "StartNotify", nullptr, kNoReply,
                [this, attempt = mAttempt](GVariant * /*reply*/, const GError *error) {
                    if (attempt == mAttempt) {
                        OnSubscribed(error);
                    }
                });
}

void StrapSession::OnSubscribed(const GError *error)
{
    if (error == nullptr) {
        mStep = Step::Receiving;
        mObserver.OnState(StrapObserver::Severity::Ordinary, mStrapName + " measures");
        return;
    }
    if (g_dbus_error_is_remote_error(error) != FALSE) {
        mMeasurement.clear();
    }
    Fail("refuses notifications: " + Parvane::BusReason(error));
}

void StrapSession::Fail(const std::string &state)
{
    TellTrouble(mStrapName + ' ' + state);
    mAside.insert(mStrap);
    Release();
    Choose();
}

void StrapSession::Release()
{
    if (!mMeasurement.empty()) {
        mScope.Send(mMeasurement, Bluez::kCharacteristic, "StopNotify");
    }
    if (mIsOurConnection) {
        mScope.Send(mStrap, Bluez::kDevice, "Disconnect");
    }
    ++mAttempt;
    mStrap.clear();
    mMeasurement.clear();
    mIsOurConnection = false;
    mHasSentValues = false;
}

void StrapSession::PauseThenRetry()
{
    if (!mRetry.IsScheduled()) {
        mRetry.Schedule([this] {
            mAside.clear();
            Advance();
        });
    }
}

void StrapSession::StartSearch()
{
    if (mSearch) {
        return;
    }
    const std::string adapter = mObjects.PoweredAdapter(mSettings.mAdapter);
    if (adapter.empty()) {
        const std::string name =
            mSettings.mAdapter.empty() ? "Bluetooth adapter" : "adapter " + mSettings.mAdapter;
        TellTrouble(mObjects.HasAdapter(mSettings.mAdapter) ? "no powered " + name : "no " + name);
        return;
    }
    if (IsAside(adapter)) {
        PauseThenRetry();
        return;
    }
    mSearch = std::make_unique<Search>(mScope.Connection(), mOwner, adapter);
    // Its reply does not matter: without the filter the search finds straps among the rest.
    mSearch->mScope.Call(adapter, Bluez::kAdapter, "SetDiscoveryFilter", DiscoveryFilter(mSettings),
                         kNoReply, [](GVariant * /*reply*/, const GError * /*error*/) {});
    // BlueZ refuses to stop a search that it has not started yet.
    mSearch->mScope.Call(
        adapter, Bluez::kAdapter, "StartDiscovery", nullptr, kNoReply,
        [this](GVariant * /*reply*/, const GError *error) { OnSearchStarted(error); }, kStopSearch);
}

void StrapSession::OnSearchStarted(const GError *error)
{
    // With straps that are known, the state that is told is why those do not measure.
    const bool isOnlyWay = mObjects.FindStraps(mSettings).empty();
    if (error == nullptr) {
        mSearch->mIsOn = true;
        if (isOnlyWay) {
            mObserver.OnState(StrapObserver::Severity::Ordinary,
                              "no strap is there yet, searching");
        }
        return;
    }
    if (isOnlyWay) {
        TellTrouble("the search is refused: " + Parvane::BusReason(error));
    }
    mAside.insert(mSearch->mAdapter);
    mSearch.reset();
    PauseThenRetry();
}

void StrapSession::StopSearch()
{
    if (mSearch && mSearch->mIsOn) {
        mScope.Send(mSearch->mAdapter, Bluez::kAdapter, kStopSearch);
    }
    mSearch.reset();
}

void StrapSession::TellLoss()
{
    if (mStep == Step::Receiving) {
        mObserver.OnStrapLost();
        TellTrouble(mStrapName + " is lost");
    }
}

void StrapSession::TellTrouble(const std::string &state)
{
    mObserver.OnState(StrapObserver::Severity::Trouble, state);
}

} // namespace ParvanePlatform
