#include "Pairing.h"

#include <cstdio>
#include <unistd.h>
#include <utility>

#include "BluezNames.h"
#include "Log.h"
#include "Output.h"
#include "Printable.h"
#include "Signals.h"
#include "Variants.h"

namespace ParvaneGateway {

namespace {

constexpr char kAgentPath[] = "/parvane/agent";

constexpr char kAgentInterface[] = R"(<node>
  <interface name="org.bluez.Agent1">
    <method name="Release"/>
    <method name="RequestPinCode"><arg type="o"/><arg direction="out" type="s"/></method>
    <method name="DisplayPinCode"><arg type="o"/><arg type="s"/></method>
    <method name="RequestPasskey"><arg type="o"/><arg direction="out" type="u"/></method>
    <method name="DisplayPasskey"><arg type="o"/><arg type="u"/><arg type="q"/></method>
    <method name="RequestConfirmation"><arg type="o"/><arg type="u"/></method>
    <method name="RequestAuthorization"><arg type="o"/></method>
    <method name="AuthorizeService"><arg type="o"/><arg type="s"/></method>
    <method name="Cancel"/>
  </interface>
</node>)";

void Reject(GDBusMethodInvocation *invocation)
{
    g_dbus_method_invocation_return_dbus_error(invocation, Bluez::kRejected, "no");
}

/** The number that the phone shows or asks for: the second argument. */
std::string Passkey(GVariant *arguments)
{
    guint32 number = 0;
    g_variant_get_child(arguments, 1, "u", &number);
    const std::string digits = std::to_string(number);
    return std::string(digits.size() < 6 ? 6 - digits.size() : 0, '0') + digits;
}

} // namespace

Pairing::Pairing(GDBusConnection *connection, PairingSettings settings, int input, Say say,
                 Ended ended)
    : mSettings(std::move(settings)),
      mInput(input),
      mSay(std::move(say)),
      mEnded(std::move(ended)),
      mBluez(connection, Bluez::kName)
{
    const auto take = [this](GVariant *arguments, auto &&change) {
        if (mIsLoaded) {
            change(Parvane::TextChild(arguments, 0), Parvane::Child(arguments, 1).get());
            OnDevices();
        }
    };
    mBluez.Subscribe({Bluez::kObjectManager, "InterfacesAdded", "(oa{sa{sv}})"},
                     [this, take](const std::string & /*path*/, GVariant *arguments) {
                         take(arguments, [this](const std::string &path, GVariant *interfaces) {
                             mDevices.Add(path, interfaces);
                         });
                     });
    mBluez.Subscribe({Bluez::kObjectManager, "InterfacesRemoved", "(oas)"},
                     [this, take](const std::string & /*path*/, GVariant *arguments) {
                         take(arguments, [this](const std::string &path, GVariant *interfaces) {
                             mDevices.Remove(path, interfaces);
                         });
                     });
    mBluez.Subscribe({Bluez::kProperties, "PropertiesChanged", "(sa{sv}as)", Bluez::kDevice},
                     [this, take](const std::string &path, GVariant *arguments) {
                         take(arguments, [&](const std::string &interface, GVariant *changed) {
                             mDevices.Change(path, interface, changed);
                         });
                     });
    mBluez.WatchOwner(Parvane::BusScope::AutoStart::No, [this](const std::string &owner) {
        if (owner.empty()) {
            Fail("BlueZ is not running");
        }
    });
    mBluez.Call("/", Bluez::kObjectManager, "GetManagedObjects", nullptr, "(a{oa{sa{sv}}})",
                [this](GVariant *reply, const GError *error) {
                    if (error != nullptr) {
                        Fail(Parvane::BusReason(error));
                        return;
                    }
                    OnObjects(Parvane::Child(reply, 0).get());
                });
}

Pairing::~Pairing()
{
    mEnded = nullptr;
    End(false);
}

void Pairing::OnObjects(GVariant *objects)
{
    mDevices.Load(objects);
    mIsLoaded = true;
    for (const auto &[path, device] : mDevices.Devices()) {
        if (device.IsBonded()) {
            mBondedBefore.insert(path);
        }
    }
    mAdapter = mDevices.FindAdapter(mSettings.mAdapter);
    if (mAdapter.empty() || !mDevices.GetAdapter(mAdapter)->mIsPowered) {
        Fail("there is no Bluetooth adapter with power" +
             (mSettings.mAdapter.empty() ? "" : " of the name " + mSettings.mAdapter));
        return;
    }
    GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(kAgentInterface, nullptr);
    static constexpr GDBusInterfaceVTable kFunctions = {OnAgentCall, nullptr, nullptr, {}};
    mAgent = g_dbus_connection_register_object(
        mBluez.Connection(), kAgentPath, g_dbus_node_info_lookup_interface(node, Bluez::kAgent),
        &kFunctions, this, nullptr, nullptr);
    g_dbus_node_info_unref(node);
    // A number is compared only where somebody is there who compares it.
    mBluez.Call(Bluez::kRoot, Bluez::kAgentManager, "RegisterAgent",
                g_variant_new("(os)", kAgentPath,
                              mSettings.mIsWithoutQuestion ? "NoInputNoOutput" : "DisplayYesNo"),
                "()", [this](GVariant * /*reply*/, const GError *error) {
                    if (error != nullptr) {
                        Fail("BlueZ takes no agent: " + Parvane::BusReason(error));
                        return;
                    }
                    mIsOffered = true;
                    Offer();
                });
}

void Pairing::Offer()
{
    mBluez.Call(Bluez::kRoot, Bluez::kAgentManager, "RequestDefaultAgent",
                g_variant_new("(o)", kAgentPath), "()",
                [this](GVariant * /*reply*/, const GError *error) {
                    if (error != nullptr) {
                        Fail("BlueZ takes no default agent: " + Parvane::BusReason(error));
                    }
                });
    const BluezDevices::Adapter &adapter = *mDevices.GetAdapter(mAdapter);
    if (!adapter.mIsPairable) {
        mBefore = adapter;
        SetAdapter("PairableTimeout",
                   g_variant_new_uint32(static_cast<guint32>(mSettings.mTime.count())));
        SetAdapter("Pairable", g_variant_new_boolean(TRUE));
    }
    mLimit = Parvane::LoopSource::After(mSettings.mTime,
                                        [this] { Fail("no phone has paired in that time"); });
    mInputSource = Parvane::LoopSource::WatchFd(
        mInput, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), [this] { OnInput(); });
    mSay("A phone may pair for " + std::to_string(mSettings.mTime.count()) + " s.");
}

void Pairing::SetAdapter(const char *property, GVariant *value)
{
    mBluez.Send(mAdapter, Bluez::kProperties, "Set",
                g_variant_new("(ssv)", Bluez::kAdapter, property, value));
}

void Pairing::OnDevices()
{
    if (!mIsOffered) {
        return;
    }
    if (mDevices.GetAdapter(mAdapter) == nullptr) {
        Fail("the adapter has gone");
        return;
    }
    for (const auto &[path, device] : mDevices.Devices()) {
        if (path.starts_with(mAdapter + '/') && device.IsBonded() &&
            !mBondedBefore.contains(path)) {
            mSay("Paired with " + NameOf(path) + '.');
            End(true);
            return;
        }
    }
}

void Pairing::OnAgentCall(GDBusConnection * /*connection*/, const char * /*sender*/,
                          const char * /*path*/, const char * /*interface*/, const char *method,
                          GVariant *arguments, GDBusMethodInvocation *invocation,
                          gpointer user_data) noexcept
{
    auto *self = static_cast<Pairing *>(user_data);
    Parvane::RunBusHandler([&] { self->Ask(method, arguments, invocation); });
}

void Pairing::Ask(const std::string &method, GVariant *arguments, GDBusMethodInvocation *invocation)
{
    if (method == "Release" || method == "Cancel") {
        g_dbus_method_invocation_return_value(invocation, nullptr);
        if (mQuestion != nullptr) {
            mSay("The phone asks no more.");
            Answer(false);
        }
        if (method == "Release") {
            mIsOffered = false;
            Fail("BlueZ has let the agent go");
        }
        return;
    }
    const char *device = nullptr;
    g_variant_get_child(arguments, 0, "&o", &device);
    const bool isOurs = std::string(device).starts_with(mAdapter + '/');
    if (isOurs && method == "DisplayPasskey") {
        g_dbus_method_invocation_return_value(invocation, nullptr);
        const std::string line = "Type " + Passkey(arguments) + " into " + NameOf(device) + '.';
        if (std::exchange(mShown, line) != line) {
            mSay(line);
        }
        return;
    }
    const bool isConfirmation = method == "RequestConfirmation";
    if (!isOurs || mQuestion != nullptr || (!isConfirmation && method != "RequestAuthorization")) {
        Reject(invocation);
        return;
    }
    mQuestion = invocation;
    if (mSettings.mIsWithoutQuestion) {
        Answer(true);
    } else if (!mInputSource.IsActive()) {
        mSay("Nobody can answer " + NameOf(device) + ", which wants to pair.");
        Answer(false);
    } else {
        mSay(isConfirmation
                 ? "Does " + NameOf(device) + " show " + Passkey(arguments) + "? [yes/no]"
                 : "Pair with " + NameOf(device) + "? [yes/no]");
    }
}

void Pairing::Answer(bool isYes)
{
    GDBusMethodInvocation *question = std::exchange(mQuestion, nullptr);
    if (question != nullptr && isYes) {
        g_dbus_method_invocation_return_value(question, nullptr);
    } else if (question != nullptr) {
        Reject(question);
    }
}

void Pairing::OnInput()
{
    char bytes[256];
    const ssize_t size = read(mInput, bytes, sizeof bytes);
    if (size <= 0) {
        mInputSource.Remove(); // nobody is there any more
        Answer(false);
        return;
    }
    for (const char letter : std::string(bytes, static_cast<std::size_t>(size))) {
        if (letter != '\n') {
            mLine += letter;
            continue;
        }
        const std::string line = std::exchange(mLine, {});
        Answer(line == "y" || line == "yes");
    }
}

void Pairing::Fail(const std::string &reason)
{
    if (mEnded) {
        mSay("Not paired: " + reason + '.');
    }
    End(false);
}

void Pairing::End(bool isPaired)
{
    Answer(false);
    mLimit.Remove();
    mInputSource.Remove();
    if (mBefore) {
        SetAdapter("Pairable", g_variant_new_boolean(FALSE));
        SetAdapter("PairableTimeout", g_variant_new_uint32(mBefore->mPairableTimeout));
        mBefore.reset();
    }
    if (std::exchange(mIsOffered, false)) {
        mBluez.Send(Bluez::kRoot, Bluez::kAgentManager, "UnregisterAgent",
                    g_variant_new("(o)", kAgentPath));
    }
    if (const guint agent = std::exchange(mAgent, 0); agent != 0) {
        g_dbus_connection_unregister_object(mBluez.Connection(), agent);
    }
    if (const Ended ended = std::exchange(mEnded, nullptr); ended) {
        ended(isPaired);
    }
}

std::string Pairing::NameOf(const std::string &device) const
{
    const BluezDevices::Device *found = mDevices.GetDevice(device);
    return found != nullptr ? Parvane::Printable(found->mAlias + " (" + found->mAddress + ')')
                            : "a phone";
}

bool RunPairing(const PairingSettings &settings)
{
    const Parvane::Signals signals;
    GError *error = nullptr;
    const Parvane::ObjectPtr<GDBusConnection> connection(
        g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error));
    const Parvane::ErrorPtr failure(error);
    if (!connection) {
        Parvane::LogError(std::string("there is no system bus: ") + failure->message);
        return false;
    }
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    bool hasPaired = false;
    {
        Pairing pairing(
            connection.get(), settings, STDIN_FILENO,
            [](const std::string &line) { Parvane::WriteAll(STDOUT_FILENO, line + '\n'); },
            [&](bool isPaired) {
                hasPaired = isPaired;
                g_main_loop_quit(loop);
            });
        const Parvane::LoopSource interrupted =
            Parvane::LoopSource::WatchFd(signals.Fd(), G_IO_IN, [loop] { g_main_loop_quit(loop); });
        g_main_loop_run(loop);
    }
    g_main_loop_unref(loop);
    // What was taken back is on its way before the process ends.
    g_dbus_connection_flush_sync(connection.get(), nullptr, nullptr);
    return hasPaired;
}

} // namespace ParvaneGateway
