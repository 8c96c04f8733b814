#pragma once

#include <functional>
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

    /** Asks until `condition` is true. @throws std::runtime_error that names `what` when it never is */
    static void WaitFor(const std::string &what, const std::function<bool()> &condition);

    /** Debian's own: the first python3 of the path need not have Debian's modules. */
    static constexpr char kPython[] = "/usr/bin/python3";

private:
    std::string mFolder;
    std::string mAddress;
    Companion mDaemon;
    GObjectPtr<GDBusConnection> mConnection;
};

} // namespace ParvanePlatform
