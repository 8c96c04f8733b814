#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include <gio/gio.h>

#include "BluezDevices.h"
#include "BusScope.h"
#include "LoopSource.h"
#include "ObjectPtr.h"

namespace ParvaneGateway {

/** How phones are let pair. */
struct PairingSettings
{
    /** The adapter, such as "hci0"; empty for the first one that is powered. */
    std::string mAdapter;
    /** For how long. */
    std::chrono::seconds mTime{60};
    /** Without a question, and so without authentication. */
    bool mIsWithoutQuestion = false;
};

/**
 * Lets a phone pair with the watch for a time: is BlueZ's default agent, makes the adapter pairable, and
 * asks a person. It needs nothing of the gateway at work, which sees at BlueZ who is bonded. What it has
 * changed is as it was when it ends, also when the process dies: BlueZ forgets an agent that has gone, and
 * ends what it was told to end after that time. Main-loop thread only.
 */
class Pairing
{
public:
    /** Shows a person one line. */
    using Say = std::function<void(const std::string &line)>;
    /** Gets whether a phone was paired. Called once; must not destroy the pairing. */
    using Ended = std::function<void(bool isPaired)>;

    /** @param input  descriptor from which a person's answers are read, line by line; borrowed */
    Pairing(GDBusConnection *connection, PairingSettings settings, int input, Say say, Ended ended);
    ~Pairing();

    Pairing(const Pairing &) = delete;
    Pairing &operator=(const Pairing &) = delete;

private:
    static void OnAgentCall(GDBusConnection *connection, const char *sender, const char *path,
                            const char *interface, const char *method, GVariant *arguments,
                            GDBusMethodInvocation *invocation, gpointer user_data) noexcept;

    void OnObjects(GVariant *objects);
    void OnDevices();
    void Offer();
    void SetAdapter(const char *property, GVariant *value);
    void Ask(const std::string &method, GVariant *arguments, GDBusMethodInvocation *invocation);
    void Answer(bool isYes);
    void OnInput();
    void Fail(const std::string &reason);
    void End(bool isPaired);
    [[nodiscard]] std::string NameOf(const std::string &device) const;

    PairingSettings mSettings;
    int mInput;
    Say mSay;
    Ended mEnded;
    Parvane::BusScope mBluez;
    BluezDevices mDevices;
    bool mIsLoaded = false;
    std::string mAdapter;
    /** What the adapter was before; empty when nothing was changed. */
    std::optional<BluezDevices::Adapter> mBefore;
    guint mAgent = 0;
    bool mIsOffered = false;
    /** The call whose answer is awaited; null for none. Owned. */
    GDBusMethodInvocation *mQuestion = nullptr;
    /** Devices that were bonded before; one that is not among them has paired now. */
    std::set<std::string> mBondedBefore;
    std::string mShown;
    std::string mLine;
    Parvane::LoopSource mInputSource;
    Parvane::LoopSource mLimit;
};

/**
 * The command `parvane-gateway pair`: a Pairing on the system bus, with standard input and output, until it
 * ends or a signal comes. @return whether a phone was paired
 */
bool RunPairing(const PairingSettings &settings);

} // namespace ParvaneGateway
