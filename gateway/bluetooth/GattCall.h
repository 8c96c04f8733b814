#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "UniqueFd.h"

namespace ParvaneGateway {

/**
 * One call of BlueZ at a characteristic of ours, which may be answered later. One that is dropped
 * without an answer is refused. Main-loop thread only.
 */
class GattCall
{
public:
    enum class Kind { AcquireWrite, WriteValue, AcquireNotify, StartNotify, StopNotify };

    /** @param invocation  taken over */
    GattCall(Kind kind, GDBusMethodInvocation *invocation);

    [[nodiscard]] Kind GetKind() const { return mKind; }

    /** The unique name of who calls. */
    [[nodiscard]] std::string Sender() const;

    /** The path of the phone's device; empty where BlueZ does not tell it, as with StartNotify. */
    [[nodiscard]] const std::string &Device() const { return mDevice; }

    /** Of the connection, in bytes; 0 where BlueZ does not tell it. */
    [[nodiscard]] std::uint16_t Mtu() const { return mMtu; }

    /** Of WriteValue. */
    [[nodiscard]] const std::vector<std::uint8_t> &Value() const { return mValue; }

    /** Whether this is a part of a value, or asks whether there may be parts. */
    [[nodiscard]] bool IsPart() const { return mIsPart; }
    /** Whether a part has another place than the beginning. */
    [[nodiscard]] bool HasOffset() const { return mOffset != 0; }

    // Each answers, which can be done once.
    void Succeed();
    /** @param end  BlueZ's end of a socket pair; a copy of it is sent */
    void Succeed(const Parvane::UniqueFd &end);
    void Refuse(const char *error, const std::string &message);

private:
    struct Dropped
    {
        void operator()(GDBusMethodInvocation *invocation) const noexcept;
    };

    void ReadOptions(GVariant *options);

    Kind mKind;
    std::unique_ptr<GDBusMethodInvocation, Dropped> mInvocation;
    std::string mDevice;
    std::uint16_t mMtu = 0;
    std::uint16_t mOffset = 0;
    bool mIsPart = false;
    std::vector<std::uint8_t> mValue;
};

} // namespace ParvaneGateway
