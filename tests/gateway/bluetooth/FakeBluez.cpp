#include "FakeBluez.h"

#include <stdexcept>

#include "BluezNames.h"

namespace ParvaneGateway {

namespace {

constexpr char kInterfaces[] = R"(<node>
  <interface name="org.freedesktop.DBus.ObjectManager">
    <method name="GetManagedObjects"><arg direction="out" type="a{oa{sa{sv}}}"/></method>
  </interface>
  <interface name="org.freedesktop.DBus.Properties">
    <method name="Set"><arg type="s"/><arg type="s"/><arg type="v"/></method>
  </interface>
  <interface name="org.bluez.GattManager1">
    <method name="RegisterApplication"><arg type="o"/><arg type="a{sv}"/></method>
    <method name="UnregisterApplication"><arg type="o"/></method>
  </interface>
  <interface name="org.bluez.LEAdvertisingManager1">
    <method name="RegisterAdvertisement"><arg type="o"/><arg type="a{sv}"/></method>
    <method name="UnregisterAdvertisement"><arg type="o"/></method>
  </interface>
  <interface name="org.bluez.Device1"><method name="Disconnect"/></interface>
  <interface name="org.bluez.AgentManager1">
    <method name="RegisterAgent"><arg type="o"/><arg type="s"/></method>
    <method name="RequestDefaultAgent"><arg type="o"/></method>
    <method name="UnregisterAgent"><arg type="o"/></method>
  </interface>
</node>)";

Parvane::VariantPtr Owned(GVariant *value)
{
    return Parvane::VariantPtr(g_variant_ref_sink(value));
}

Parvane::VariantPtr Child(GVariant *tuple, gsize index)
{
    return Parvane::VariantPtr(g_variant_get_child_value(tuple, index));
}

GVariant *ToVariant(const std::map<std::string, Parvane::VariantPtr> &properties)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    for (const auto &[name, value] : properties) {
        g_variant_builder_add(&builder, "{sv}", name.c_str(), value.get());
    }
    return g_variant_builder_end(&builder);
}

GVariant *
ToVariant(const std::map<std::string, std::map<std::string, Parvane::VariantPtr>> &interfaces)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sa{sv}}"));
    for (const auto &[name, properties] : interfaces) {
        g_variant_builder_add(&builder, "{s@a{sv}}", name.c_str(), ToVariant(properties));
    }
    return g_variant_builder_end(&builder);
}

Bytes BytesOf(GVariant *value)
{
    gsize size = 0;
    const auto *bytes = static_cast<const std::uint8_t *>(
        g_variant_get_fixed_array(value, &size, sizeof(std::uint8_t)));
    return {bytes, bytes + size};
}

} // namespace

Parvane::ObjectPtr<GDBusConnection> Connect(const std::string &busAddress)
{
    return Parvane::ObjectPtr<GDBusConnection>(g_dbus_connection_new_for_address_sync(
        busAddress.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr));
}

FakeBluez::FakeBluez(const std::string &busAddress) : mConnection(Connect(busAddress))
{
    if (!mConnection) {
        throw std::runtime_error("no connection to the bus");
    }
    for (const auto &[path, interface] :
         {std::pair<const char *, const char *>{"/", Bluez::kObjectManager},
          {Bluez::kRoot, Bluez::kAgentManager}}) {
        Interfaces interfaces;
        interfaces[interface];
        Add(path, std::move(interfaces));
    }
    const Parvane::VariantPtr answer(g_dbus_connection_call_sync(
        mConnection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", Bluez::kName, 4U), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
        nullptr, nullptr));
    mValues = g_dbus_connection_signal_subscribe(
        mConnection.get(), nullptr, Bluez::kProperties, "PropertiesChanged", kFrom,
        Bluez::kCharacteristic, G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection *, const char *, const char *, const char *, const char *,
           GVariant *arguments, gpointer self) {
            const Parvane::VariantPtr changed = Child(arguments, 1);
            const Parvane::VariantPtr value(
                g_variant_lookup_value(changed.get(), "Value", G_VARIANT_TYPE_BYTESTRING));
            static_cast<FakeBluez *>(self)->mNotified.push_back(BytesOf(value.get()));
        },
        this, nullptr);
}

FakeBluez::~FakeBluez()
{
    g_cancellable_cancel(mEnd.get());
    for (const auto &[method, invocation] : mWaiting) {
        g_object_unref(invocation);
    }
    g_dbus_connection_signal_unsubscribe(mConnection.get(), mValues);
    for (const auto &[path, registrations] : mRegistrations) {
        for (const guint registration : registrations) {
            g_dbus_connection_unregister_object(mConnection.get(), registration);
        }
    }
    g_dbus_connection_close_sync(mConnection.get(), nullptr, nullptr);
}

void FakeBluez::Add(const std::string &path, Interfaces interfaces)
{
    static constexpr GDBusInterfaceVTable kFunctions = {OnCall, nullptr, nullptr, {}};
    interfaces[Bluez::kProperties];
    GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(kInterfaces, nullptr);
    for (const auto &[name, properties] : interfaces) {
        if (GDBusInterfaceInfo *info = g_dbus_node_info_lookup_interface(node, name.c_str());
            info != nullptr) {
            mRegistrations[path].push_back(g_dbus_connection_register_object(
                mConnection.get(), path.c_str(), info, &kFunctions, this, nullptr, nullptr));
        }
    }
    g_dbus_node_info_unref(node);
    mObjects[path] = std::move(interfaces);
    Emit("/", Bluez::kObjectManager, "InterfacesAdded",
         g_variant_new("(o@a{sa{sv}})", path.c_str(), ToVariant(mObjects[path])));
}

void FakeBluez::Remove(const std::string &path)
{
    for (const guint registration : mRegistrations[path]) {
        g_dbus_connection_unregister_object(mConnection.get(), registration);
    }
    std::vector<const char *> names;
    for (const auto &[name, properties] : mObjects[path]) {
        names.push_back(name.c_str());
    }
    Emit("/", Bluez::kObjectManager, "InterfacesRemoved",
         g_variant_new("(o@as)", path.c_str(),
                       g_variant_new_strv(names.data(), static_cast<gssize>(names.size()))));
    mRegistrations.erase(path);
    mObjects.erase(path);
}

void FakeBluez::AddAdapter(const std::string &adapter, bool isPowered)
{
    Interfaces interfaces;
    interfaces[Bluez::kAdapter]["Powered"] = Owned(g_variant_new_boolean(isPowered ? TRUE : FALSE));
    interfaces[Bluez::kAdapter]["Alias"] = Owned(g_variant_new_string("A watch"));
    interfaces[Bluez::kAdapter]["Pairable"] = Owned(g_variant_new_boolean(FALSE));
    interfaces[Bluez::kAdapter]["PairableTimeout"] = Owned(g_variant_new_uint32(0));
    interfaces[Bluez::kGattManager];
    interfaces[Bluez::kAdvertisingManager]["ActiveInstances"] = Owned(g_variant_new_byte(0));
    Add(AdapterPath(adapter), std::move(interfaces));
}

void FakeBluez::RemoveAdapter(const std::string &adapter)
{
    mApplication.reset();
    mAdvertisement.reset();
    const std::string path = AdapterPath(adapter);
    while (mObjects.lower_bound(path + '/') != mObjects.end() &&
           mObjects.lower_bound(path + '/')->first.starts_with(path + '/')) {
        Remove(mObjects.lower_bound(path + '/')->first);
    }
    Remove(path);
}

std::string FakeBluez::AddDevice(const std::string &adapter, const std::string &address,
                                 bool isBonded)
{
    std::string path = AdapterPath(adapter) + "/dev_" + address;
    for (char &letter : path) {
        letter = letter == ':' ? '_' : letter;
    }
    Interfaces interfaces;
    Properties &device = interfaces[Bluez::kDevice];
    device["Address"] = Owned(g_variant_new_string(address.c_str()));
    device["Alias"] = Owned(g_variant_new_string("Phone"));
    device["Connected"] = Owned(g_variant_new_boolean(TRUE));
    device["Paired"] = Owned(g_variant_new_boolean(isBonded ? TRUE : FALSE));
    device["Bonded"] = Owned(g_variant_new_boolean(isBonded ? TRUE : FALSE));
    Add(path, std::move(interfaces));
    return path;
}

void FakeBluez::Set(const std::string &path, const std::string &interface,
                    const std::string &property, GVariant *value)
{
    mObjects[path][interface][property] = Owned(value);
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&changed, "{sv}", property.c_str(), value);
    Emit(path, Bluez::kProperties, "PropertiesChanged",
         g_variant_new("(sa{sv}as)", interface.c_str(), &changed, nullptr));
}

void FakeBluez::SetConnected(const std::string &device, bool isConnected)
{
    Set(device, Bluez::kDevice, "Connected", g_variant_new_boolean(isConnected ? TRUE : FALSE));
}

GVariant *FakeBluez::Get(const std::string &path, const std::string &interface,
                         const std::string &property)
{
    return mObjects[path][interface][property].get();
}

void FakeBluez::Emit(const std::string &path, const char *interface, const char *signal,
                     GVariant *arguments)
{
    g_dbus_connection_emit_signal(mConnection.get(), nullptr, path.c_str(), interface, signal,
                                  arguments, nullptr);
}

void FakeBluez::Fail(const std::string &method, const std::string &error, int times)
{
    mFailures[method] = {error, times};
}

void FakeBluez::Answer(const std::string &method)
{
    mDelayed.erase(method);
    const auto [begin, end] = mWaiting.equal_range(method);
    for (auto waiting = begin; waiting != end; ++waiting) {
        g_dbus_method_invocation_return_value(waiting->second, nullptr);
    }
    mWaiting.erase(begin, end);
}

void FakeBluez::OnCall(GDBusConnection * /*connection*/, const char * /*sender*/, const char *path,
                       const char * /*interface*/, const char *method, GVariant *arguments,
                       GDBusMethodInvocation *invocation, gpointer user_data) noexcept
{
    static_cast<FakeBluez *>(user_data)->Take(path, method, arguments, invocation);
}

void FakeBluez::Take(const std::string &path, const std::string &method, GVariant *arguments,
                     GDBusMethodInvocation *invocation)
{
    ++mCounts[method];
    if (auto &[error, times] = mFailures[method]; times != 0) {
        times -= times > 0 ? 1 : 0;
        g_dbus_method_invocation_return_dbus_error(invocation, error.c_str(), "not today");
        return;
    }
    if (mDelayed.contains(method) && method != "Disconnect") {
        mWaiting.emplace(method, invocation);
        return;
    }
    const char *object = nullptr;
    if (g_variant_n_children(arguments) > 0 && method != "Set") {
        g_variant_get_child(arguments, 0, "&o", &object);
    }
    if (method.starts_with("Register")) {
        mOwner = g_dbus_method_invocation_get_sender(invocation);
    }
    if (method == "GetManagedObjects") {
        GVariantBuilder objects;
        g_variant_builder_init(&objects, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
        for (const auto &[name, interfaces] : mObjects) {
            g_variant_builder_add(&objects, "{o@a{sa{sv}}}", name.c_str(), ToVariant(interfaces));
        }
        g_dbus_method_invocation_return_value(invocation,
                                              g_variant_new("(a{oa{sa{sv}}})", &objects));
        return;
    }
    if (method == "RegisterApplication") {
        ReadThenAnswer(object, Bluez::kObjectManager, "GetManagedObjects", nullptr, mApplication,
                       invocation);
        return;
    }
    if (method == "RegisterAdvertisement") {
        ReadThenAnswer(object, Bluez::kProperties, "GetAll",
                       g_variant_new("(s)", Bluez::kAdvertisement), mAdvertisement, invocation);
        return;
    }
    if (method == "UnregisterApplication") {
        mApplication.reset();
    } else if (method == "UnregisterAdvertisement") {
        mAdvertisement.reset();
    } else if (method == "Disconnect" && !mDelayed.contains(method)) {
        SetConnected(path, false);
    } else if (method == "RegisterAgent") {
        mAgent = object;
        mAgentOwner = mOwner;
        const char *capability = nullptr;
        g_variant_get_child(arguments, 1, "&s", &capability);
        mCapability = capability;
    } else if (method == "RequestDefaultAgent") {
        mIsDefaultAgent = true;
    } else if (method == "UnregisterAgent") {
        mAgent.clear();
        mIsDefaultAgent = false;
    } else if (method == "Set") {
        const char *interface = nullptr;
        const char *name = nullptr;
        GVariant *value = nullptr;
        g_variant_get(arguments, "(&s&sv)", &interface, &name, &value);
        const Parvane::VariantPtr owned(value);
        Set(path, interface, name, value);
    }
    if (mDelayed.contains(method)) {
        mWaiting.emplace(method, invocation);
        return;
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

void FakeBluez::ReadThenAnswer(const char *path, const char *interface, const char *method,
                               GVariant *arguments, Parvane::VariantPtr &place,
                               GDBusMethodInvocation *invocation)
{
    struct Reading
    {
        Parvane::VariantPtr &mPlace;
        GDBusMethodInvocation *mInvocation;
    };
    g_dbus_connection_call(
        mConnection.get(), mOwner.c_str(), path, interface, method, arguments, nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, mEnd.get(),
        [](GObject *connection, GAsyncResult *result, gpointer data) {
            const std::unique_ptr<Reading> reading(static_cast<Reading *>(data));
            const Parvane::VariantPtr reply(
                g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, nullptr));
            if (!reply) { // who has asked has gone, or this BlueZ has
                g_object_unref(reading->mInvocation);
                return;
            }
            reading->mPlace = Child(reply.get(), 0);
            g_dbus_method_invocation_return_value(reading->mInvocation, nullptr);
        },
        new Reading{place, invocation});
}

void FakeBluez::ReleaseAdvertisement()
{
    mAdvertisement.reset();
    Call(mOwner, "/parvane/advertisement", Bluez::kAdvertisement, "Release", nullptr);
}

FakeBluez::OutcomePtr FakeBluez::AcquireWrite(const std::string &device, std::uint16_t mtu)
{
    return CallCharacteristic(
        kTo, "AcquireWrite",
        g_variant_new_parsed("({'device': <%o>, 'mtu': <%q>, 'link': <'LE'>},)", device.c_str(),
                             mtu));
}

FakeBluez::OutcomePtr FakeBluez::AcquireNotify(const std::string &device, std::uint16_t mtu)
{
    return CallCharacteristic(
        kFrom, "AcquireNotify",
        g_variant_new_parsed("({'device': <%o>, 'mtu': <%q>, 'link': <'LE'>},)", device.c_str(),
                             mtu));
}

FakeBluez::OutcomePtr FakeBluez::WriteValue(const std::string &device, const Bytes &value,
                                            std::uint16_t mtu, const std::string &options)
{
    const std::string text = "{'device': <objectpath '" + device + "'>, 'mtu': <uint16 " +
                             std::to_string(mtu) + ">" + (options.empty() ? "" : ", ") + options +
                             "}";
    const Parvane::VariantPtr dictionary(
        g_variant_parse(G_VARIANT_TYPE_VARDICT, text.c_str(), nullptr, nullptr, nullptr));
    return CallCharacteristic(
        kTo, "WriteValue",
        g_variant_new("(@ay@a{sv})",
                      g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, value.data(), value.size(), 1),
                      dictionary.get()));
}

FakeBluez::OutcomePtr FakeBluez::CallAgent(const char *method, GVariant *arguments)
{
    return Call(mAgentOwner, mAgent.c_str(), Bluez::kAgent, method, arguments);
}

FakeBluez::OutcomePtr FakeBluez::CallCharacteristic(const char *path, const char *method,
                                                    GVariant *arguments)
{
    return Call(mOwner, path, Bluez::kCharacteristic, method, arguments);
}

FakeBluez::OutcomePtr FakeBluez::Call(const std::string &peer, const char *path,
                                      const char *interface, const char *method,
                                      GVariant *arguments)
{
    auto outcome = std::make_shared<Outcome>();
    g_dbus_connection_call_with_unix_fd_list(
        mConnection.get(), peer.c_str(), path, interface, method, arguments, nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr,
        [](GObject *connection, GAsyncResult *result, gpointer data) {
            const std::unique_ptr<OutcomePtr> held(static_cast<OutcomePtr *>(data));
            Outcome &told = **held;
            GUnixFDList *fds = nullptr;
            GError *error = nullptr;
            const Parvane::VariantPtr reply(g_dbus_connection_call_with_unix_fd_list_finish(
                G_DBUS_CONNECTION(connection), &fds, result, &error));
            const Parvane::ErrorPtr failure(error);
            const Parvane::ObjectPtr<GUnixFDList> list(fds);
            told.mIsDone = true;
            if (error != nullptr) {
                char *name = g_dbus_error_get_remote_error(error);
                told.mError = name != nullptr ? name : "none";
                g_free(name);
                g_dbus_error_strip_remote_error(error);
                told.mMessage = error->message;
            } else if (list) {
                told.mFd.Reset(g_unix_fd_list_get(list.get(), 0, nullptr));
                g_variant_get_child(reply.get(), 1, "q", &told.mMtu);
            }
        },
        new OutcomePtr(outcome));
    return outcome;
}

} // namespace ParvaneGateway
