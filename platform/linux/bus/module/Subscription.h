#pragma once

#include <functional>
#include <string>

#include "bus/module/GObjectPtr.h"

namespace ParvanePlatform {

/**
 * Runs what came from the bus; nothing leaves it: what is thrown is logged.
 */
void RunBusHandler(const std::function<void()> &handler) noexcept;

/** The signals of one kind, for as long as it lives. Main-loop thread only. */
class SignalSubscription
{
public:
    /** Takes the signal's parameters, borrowed for the call. */
    using Handler = std::function<void(GVariant *parameters)>;

    /** Which signals. */
    struct Match
    {
        const char *mSender = nullptr;
        const char *mPath = nullptr;
        const char *mInterface = nullptr;
        const char *mMember = nullptr;
        /** The first argument; null: any. */
        const char *mArgument = nullptr;
    };

    /** `handler` may end the subscription in its call. */
    SignalSubscription(GDBusConnection *connection, const Match &match, Handler handler);
    ~SignalSubscription();

    SignalSubscription(const SignalSubscription &) = delete;
    SignalSubscription &operator=(const SignalSubscription &) = delete;

private:
    static void OnSignal(GDBusConnection *connection, const char *sender, const char *path,
                         const char *interface, const char *member, GVariant *parameters,
                         gpointer user_data) noexcept;
    static void OnFree(gpointer user_data) noexcept;

    GObjectPtr<GDBusConnection> mConnection;
    guint mId = 0;
};

/** Whether a service is there, for as long as it lives. Main-loop thread only. */
class NameWatch
{
public:
    using Handler = std::function<void()>;

    /**
     * Has the service started if the bus can do that. One of the handlers is called soon, from the
     * main loop, and then at each change; each may end the watch in its call.
     */
    NameWatch(GDBusConnection *connection, const char *name, Handler appeared, Handler vanished);
    ~NameWatch();

    NameWatch(const NameWatch &) = delete;
    NameWatch &operator=(const NameWatch &) = delete;

private:
    struct Handlers
    {
        Handler mAppeared;
        Handler mVanished;
    };

    static void OnAppeared(GDBusConnection *connection, const char *name, const char *owner,
                           gpointer user_data) noexcept;
    static void OnVanished(GDBusConnection *connection, const char *name,
                           gpointer user_data) noexcept;
    static void OnFree(gpointer user_data) noexcept;

    guint mId = 0;
};

/** A call that has been made and not been answered; its end cancels it. Main-loop thread only. */
class PendingCall
{
public:
    /**
     * Takes the answer; null when the call has failed, with why. Both are borrowed for the call.
     */
    using Handler = std::function<void(GVariant *answer, const GError *failure)>;

    /** What is called. */
    struct Method
    {
        const char *mName = nullptr;
        const char *mPath = nullptr;
        const char *mInterface = nullptr;
        const char *mMember = nullptr;
    };

    /** `parameters` may be floating; `handler` may end the call's owner. */
    PendingCall(GDBusConnection *connection, const Method &method, GVariant *parameters,
                Handler handler);
    ~PendingCall();

    PendingCall(const PendingCall &) = delete;
    PendingCall &operator=(const PendingCall &) = delete;

private:
    static void OnAnswer(GObject *connection, GAsyncResult *result, gpointer user_data) noexcept;

    GObjectPtr<GCancellable> mCancellable;
};

} // namespace ParvanePlatform
