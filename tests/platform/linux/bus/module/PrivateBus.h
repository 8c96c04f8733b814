#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "ChildProcess.h"
#include "ObjectPtr.h"

namespace ParvanePlatform {

/** A program that a test needs beside it; killed and waited for by its owner. */
class Companion
{
public:
    /** Starts a program in place of the one before, with what it prints in `outputFile`. */
    void Start(const std::vector<std::string> &command, const std::string &outputFile);

    /** Ends the program at once, if one runs. */
    void Kill();

    /** Lets the program do nothing for a time. */
    void Pause() const;
    void Resume() const;

private:
    std::optional<Parvane::ChildProcess> mProcess;
};

class PrivateBus;

/** A service as a template of python-dbusmock makes it; gone from the bus at the end of its life. */
class MockedService
{
public:
    /** Waits until it is there. `bus` is borrowed; the rest is that of PrivateBus::Run(). */
    MockedService(const PrivateBus &bus, const std::string &busTemplate,
                  const std::string &parameters);
    ~MockedService();

    MockedService(const MockedService &) = delete;
    MockedService &operator=(const MockedService &) = delete;

    void Pause() const { mProcess.Pause(); }
    void Resume() const { mProcess.Resume(); }

private:
    const PrivateBus &mBus;
    std::string mName;
    Companion mProcess;
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

    /** Kills the bus; every connection to it is lost. */
    void Stop();

    /** True between Start() and Stop(). */
    bool IsRunning() const { return mConnection != nullptr; }

    /** Lets the bus do nothing for a time. */
    void Pause() const { mDaemon.Pause(); }
    void Resume() const { mDaemon.Resume(); }

    /** Lets the bus say that it can start a service; from the next Start() on. */
    void AddStartable(const std::string &name) const;

    /**
     * Runs a mocked service.
     *
     * @param busTemplate  "logind", "upower", "low_memory_monitor" or "bluez5"
     * @param parameters   of the template, as JSON
     */
    std::unique_ptr<MockedService> Run(const std::string &busTemplate,
                                       const std::string &parameters = "{}") const;

    const std::string &Address() const { return mAddress; }
    const std::string &Folder() const { return mFolder; }

    /**
     * Calls a method over a connection of the test's own, and waits for the reply. `arguments` is
     * taken over when it is floating.
     *
     * @throws std::runtime_error with what the error says
     */
    Parvane::VariantPtr Call(const std::string &name, const std::string &path,
                             const char *interface, const char *method, GVariant *arguments) const;

    /** The same in GVariant's text: takes "('hci0', 'watch')", returns what it prints as. */
    std::string Call(const std::string &name, const std::string &path, const char *interface,
                     const char *method, const std::string &arguments = "()") const;

    /** Sets a property of a mocked object, which tells of it. `value` is GVariant's text. */
    void SetProperty(const std::string &name, const std::string &path, const std::string &interface,
                     const std::string &property, const std::string &value) const;

    bool HasOwner(const std::string &name) const;

    /** Asks until `condition` is true. @throws std::runtime_error that names `what` when it never is */
    static void WaitFor(const std::string &what, const std::function<bool()> &condition);

    /** Debian's own: the first python3 of the path need not have Debian's modules. */
    static constexpr char kPython[] = "/usr/bin/python3";

private:
    std::string mFolder;
    std::string mAddress;
    std::optional<std::string> mOldAddress;
    Companion mDaemon;
    Parvane::ObjectPtr<GDBusConnection> mConnection;
};

/** A socket that connections can be made to, and that never says a word. */
class SilentBus
{
public:
    explicit SilentBus(const std::string &path);
    ~SilentBus();

    SilentBus(const SilentBus &) = delete;
    SilentBus &operator=(const SilentBus &) = delete;

private:
    int mSocket;
};

} // namespace ParvanePlatform
