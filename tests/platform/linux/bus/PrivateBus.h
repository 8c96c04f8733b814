#pragma once

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

#include "bus/module/GObjectPtr.h"

namespace ParvanePlatform {

/** A program that a test needs beside it; killed and waited for by its owner. */
class Companion
{
public:
    Companion() = default;
    ~Companion() { Kill(); }

    Companion(const Companion &) = delete;
    Companion &operator=(const Companion &) = delete;

    /** Starts a program in place of the one before, with what it prints in `outputFile`. */
    void Start(const std::vector<std::string> &command, const std::string &outputFile);

    /** Ends the program at once, if one runs. */
    void Kill();

private:
    pid_t mPid = -1;
};

/**
 * A system bus of the test's own: a dbus-daemon in a folder of its own, which is the system bus of
 * this process, and of the programs that it starts, while the object lives.
 */
class PrivateBus
{
public:
    /** Why there can be no private bus with mocked services here; empty when there can. */
    static std::string WhyNot();

    /** Starts the bus. @throws std::runtime_error when that does not work */
    PrivateBus();
    ~PrivateBus();

    PrivateBus(const PrivateBus &) = delete;
    PrivateBus &operator=(const PrivateBus &) = delete;

    /** Starts the bus again, at the same address. */
    void Start();

    /** Kills the bus. */
    void Stop();

    const std::string &Address() const { return mAddress; }
    const std::string &Folder() const { return mFolder; }

    /**
     * Calls a method over a connection of the test's own, and waits for the reply. `arguments` is
     * taken over when it is floating.
     *
     * @throws std::runtime_error with what the error says
     */
    GVariantPtr Call(const std::string &name, const std::string &path, const char *interface,
                     const char *method, GVariant *arguments) const;

    bool HasOwner(const std::string &name) const;

private:
    std::string mFolder;
    std::string mAddress;
    Companion mDaemon;
    GObjectPtr<GDBusConnection> mConnection;
};

/**
 * BlueZ, as python-dbusmock's template has it, with heart-rate straps added.
 *
 * A strap that is reachable does what BlueZ does with one: when it is connected its GATT objects
 * appear before its services are resolved, and they go with the connection.
 */
class MockedBluez
{
public:
    /** Starts it; `bus` is borrowed. */
    explicit MockedBluez(const PrivateBus &bus);

    MockedBluez(const MockedBluez &) = delete;
    MockedBluez &operator=(const MockedBluez &) = delete;

    /** Starts it in place of the one that ran, without any object. */
    void Start();
    void Kill() { mProcess.Kill(); }

    /** Adds an adapter that is powered, such as "hci0". */
    void AddAdapter(const std::string &adapter);
    void RemoveAdapter(const std::string &adapter);
    void SetPowered(const std::string &adapter, bool isPowered);
    void RefuseSearch(const std::string &adapter, bool isRefused);

    /** Adds a strap that is reachable and not connected. @return its path */
    std::string AddStrap(const std::string &adapter, const std::string &address);
    void RemoveStrap(const std::string &strap);
    void SetReachable(const std::string &strap, bool isReachable);
    /** Lets the next attempt to connect a strap hang, and all of BlueZ with it. */
    void LetConnectingHang(const std::string &strap);

    /** Connects a strap as if another program had, or as if its peer had come by itself. */
    void Connect(const std::string &strap);
    /** Loses a strap's connection. */
    void Disconnect(const std::string &strap);

    void AddMeasurement(const std::string &strap);
    void RemoveMeasurement(const std::string &strap);
    void RefuseNotifications(const std::string &strap, bool areRefused);
    void EndNotifications(const std::string &strap);

    /** Lets the strap notify one value of its heart-rate measurement. */
    void Notify(const std::string &strap, const std::vector<unsigned char> &value);

    /** Lets the measurement's value be of a type that BlueZ never gives it. */
    void NotifyText(const std::string &strap);

    /** The methods that were called since it was started, without what the test itself asked for. */
    std::vector<std::string> Calls() const;
    /** How often a method was called since it was started. */
    int Count(const std::string &method) const;

private:
    void Mock(const std::string &path, const char *method, GVariant *arguments) const;
    /** Runs Python in the mock; `objects`, `dbus` and `root` are known there. */
    void Run(const std::string &code) const;
    void SetMethod(const std::string &path, const char *interface, const char *method,
                   const std::string &code) const;

    const PrivateBus &mBus;
    std::string mLogFile;
    int mStarts = 0;
    Companion mProcess;
};

} // namespace ParvanePlatform
