#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include "FakeWatch.h"
#include "ObjectPtr.h"
#include "UniqueFd.h"

namespace ParvaneGateway {

/** A connection to a bus; null when there is none. */
Parvane::ObjectPtr<GDBusConnection> Connect(const std::string &busAddress);

/**
 * BlueZ, as far as a peripheral's program sees it, on the main loop of the test and a connection of its
 * own: it reads the objects that are registered as BlueZ does, and its phones ask as BlueZ asks for them.
 * Gone from the bus at the end of its life, without a word.
 */
class FakeBluez
{
public:
    explicit FakeBluez(const std::string &busAddress);
    ~FakeBluez();

    FakeBluez(const FakeBluez &) = delete;
    FakeBluez &operator=(const FakeBluez &) = delete;

    static std::string AdapterPath(const std::string &adapter) { return "/org/bluez/" + adapter; }

    void AddAdapter(const std::string &adapter, bool isPowered = true);
    /** With what is registered on it, and its devices. */
    void RemoveAdapter(const std::string &adapter);

    /** A device that is connected. @return its path */
    std::string AddDevice(const std::string &adapter, const std::string &address, bool isBonded);

    /** Forgets a device, or another object. */
    void Remove(const std::string &path);

    /** Sets a property and tells of it. @param value  taken over when it is floating */
    void Set(const std::string &path, const std::string &interface, const std::string &property,
             GVariant *value);
    void SetConnected(const std::string &device, bool isConnected);
    /** A property as it is now; null for none. */
    GVariant *Get(const std::string &path, const std::string &interface,
                  const std::string &property);

    /** Lets a method fail so many times, or from now on with -1. */
    void Fail(const std::string &method, const std::string &error, int times = 1);
    /** Lets a method have no answer, until Answer(). */
    void Delay(const std::string &method) { mDelayed.insert(method); }
    void Answer(const std::string &method);

    /** How often a method was called. */
    int Count(const std::string &method) { return mCounts[method]; }

    /** The unique name of who has registered something last. */
    [[nodiscard]] const std::string &Owner() const { return mOwner; }

    [[nodiscard]] bool HasApplication() const { return mApplication != nullptr; }
    [[nodiscard]] bool HasAdvertisement() const { return mAdvertisement != nullptr; }
    /** What the application and the advertisement say: a{oa{sa{sv}}}, a{sv}. */
    [[nodiscard]] GVariant *Application() const { return mApplication.get(); }
    [[nodiscard]] GVariant *Advertisement() const { return mAdvertisement.get(); }

    /** Ends the advertisement by itself. */
    void ReleaseAdvertisement();

    /** What a call at the application or the agent has come to. */
    struct Outcome
    {
        bool mIsDone = false;
        /** The name of the error, and what it says; empty for none. */
        std::string mError;
        std::string mMessage;
        Parvane::UniqueFd mFd;
        std::uint16_t mMtu = 0;
    };
    using OutcomePtr = std::shared_ptr<Outcome>;

    OutcomePtr AcquireWrite(const std::string &device, std::uint16_t mtu);
    OutcomePtr AcquireNotify(const std::string &device, std::uint16_t mtu);
    /** @param options  more of them, in GVariant's text, such as "'offset': <uint16 3>" */
    OutcomePtr WriteValue(const std::string &device, const Bytes &value, std::uint16_t mtu,
                          const std::string &options = "");
    OutcomePtr StartNotify() { return CallCharacteristic(kFrom, "StartNotify", nullptr); }
    OutcomePtr StopNotify() { return CallCharacteristic(kFrom, "StopNotify", nullptr); }

    /** The values that were notified by PropertiesChanged. */
    [[nodiscard]] const std::vector<Bytes> &Notified() const { return mNotified; }

    // The agent that is registered: its path, or empty; whether it is the default one.
    [[nodiscard]] const std::string &Agent() const { return mAgent; }
    [[nodiscard]] bool IsDefaultAgent() const { return mIsDefaultAgent; }
    [[nodiscard]] const std::string &AgentCapability() const { return mCapability; }
    OutcomePtr CallAgent(const char *method, GVariant *arguments);

private:
    static constexpr char kTo[] = "/parvane/service/to_watch";
    static constexpr char kFrom[] = "/parvane/service/from_watch";

    using Properties = std::map<std::string, Parvane::VariantPtr>;
    using Interfaces = std::map<std::string, Properties>;

    static void OnCall(GDBusConnection *connection, const char *sender, const char *path,
                       const char *interface, const char *method, GVariant *arguments,
                       GDBusMethodInvocation *invocation, gpointer user_data) noexcept;

    void Take(const std::string &path, const std::string &method, GVariant *arguments,
              GDBusMethodInvocation *invocation);
    void ReadThenAnswer(const char *path, const char *interface, const char *method,
                        GVariant *arguments, Parvane::VariantPtr &place,
                        GDBusMethodInvocation *invocation);
    void Add(const std::string &path, Interfaces interfaces);
    void Emit(const std::string &path, const char *interface, const char *signal,
              GVariant *arguments);
    OutcomePtr CallCharacteristic(const char *path, const char *method, GVariant *arguments);
    OutcomePtr Call(const std::string &peer, const char *path, const char *interface,
                    const char *method, GVariant *arguments);

    Parvane::ObjectPtr<GDBusConnection> mConnection;
    /** Ends the calls that still wait for an answer. */
    const Parvane::ObjectPtr<GCancellable> mEnd{g_cancellable_new()};
    std::map<std::string, Interfaces> mObjects;
    std::map<std::string, std::vector<guint>> mRegistrations;
    std::map<std::string, std::pair<std::string, int>> mFailures;
    std::set<std::string> mDelayed;
    std::multimap<std::string, GDBusMethodInvocation *> mWaiting;
    std::map<std::string, int> mCounts;
    std::string mOwner;
    Parvane::VariantPtr mApplication;
    Parvane::VariantPtr mAdvertisement;
    guint mValues = 0;
    std::vector<Bytes> mNotified;
    std::string mAgent;
    std::string mAgentOwner;
    std::string mCapability;
    bool mIsDefaultAgent = false;
};

} // namespace ParvaneGateway
