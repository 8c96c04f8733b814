#pragma once

#include <string>
#include <vector>

#include "PrivateBus.h"

namespace ParvanePlatform {

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
    /** Lets attempts to connect a strap succeed without a signal of that, as BlueZ does at times. */
    void LetConnectingBeSilent(const std::string &strap);

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
