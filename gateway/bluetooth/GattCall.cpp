#include "GattCall.h"

#include "BluezNames.h"
#include "Variants.h"

namespace ParvaneGateway {

void GattCall::Dropped::operator()(GDBusMethodInvocation *invocation) const noexcept
{
    g_dbus_method_invocation_return_dbus_error(invocation, Bluez::kFailed, "0x80");
}

GattCall::GattCall(Kind kind, GDBusMethodInvocation *invocation)
    : mKind(kind), mInvocation(invocation)
{
    GVariant *arguments = g_dbus_method_invocation_get_parameters(invocation);
    const gsize count = g_variant_n_children(arguments);
    if (kind == Kind::WriteValue) {
        const Parvane::VariantPtr value = Parvane::Child(arguments, 0);
        gsize size = 0;
        const auto *bytes = static_cast<const std::uint8_t *>(
            g_variant_get_fixed_array(value.get(), &size, sizeof(std::uint8_t)));
        mValue.assign(bytes, bytes + size);
    }
    if (count != 0) {
        ReadOptions(Parvane::Child(arguments, count - 1).get());
    }
}

void GattCall::ReadOptions(GVariant *options)
{
    const char *device = nullptr;
    if (g_variant_lookup(options, "device", "&o", &device) != FALSE) {
        mDevice = device;
    }
    g_variant_lookup(options, "mtu", "q", &mMtu);
    g_variant_lookup(options, "offset", "q", &mOffset);
    const char *type = nullptr;
    const bool isReliable =
        g_variant_lookup(options, "type", "&s", &type) != FALSE && std::string(type) == "reliable";
    gboolean isQuestion = FALSE;
    g_variant_lookup(options, "prepare-authorize", "b", &isQuestion);
    mIsPart = mOffset != 0 || isReliable || isQuestion != FALSE;
}

std::string GattCall::Sender() const
{
    const char *sender = g_dbus_method_invocation_get_sender(mInvocation.get());
    return sender != nullptr ? sender : "";
}

void GattCall::Succeed()
{
    g_dbus_method_invocation_return_value(mInvocation.release(), nullptr);
}

void GattCall::Succeed(const Parvane::UniqueFd &end)
{
    const Parvane::ObjectPtr<GUnixFDList> list(g_unix_fd_list_new());
    GError *error = nullptr;
    const int handle = g_unix_fd_list_append(list.get(), end.Get(), &error);
    const Parvane::ErrorPtr failure(error);
    if (handle < 0) {
        Refuse(Bluez::kNotSupported, failure->message);
        return;
    }
    g_dbus_method_invocation_return_value_with_unix_fd_list(
        mInvocation.release(), g_variant_new("(hq)", handle, mMtu), list.get());
}

void GattCall::Refuse(const char *error, const std::string &message)
{
    g_dbus_method_invocation_return_dbus_error(mInvocation.release(), error, message.c_str());
}

} // namespace ParvaneGateway
