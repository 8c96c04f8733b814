#pragma once

#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ParvanePlatform {

/** A program that a test has started; killed and waited for at the end. */
class MockProcess
{
public:
    /**
     * @param environment  "NAME=value"; nothing else is in it
     * @param output       where standard output goes; -1: nowhere
     */
    MockProcess(const std::vector<std::string> &command,
                const std::vector<std::string> &environment, int output);
    ~MockProcess();

    MockProcess(const MockProcess &) = delete;
    MockProcess &operator=(const MockProcess &) = delete;

    /** Lets the program answer nothing for a time. */
    void Pause() const;
    void Resume() const;

private:
    pid_t mPid = -1;
};

/**
 * A message bus of the test's own in the place of the system bus, and mocked services on it, as the
 * templates of python-dbusmock make them. The process's variable for the address of the system bus
 * names it during its life.
 */
class MockBus
{
public:
    /** A mocked service; gone at the end of its life. */
    class Service
    {
    public:
        Service(MockBus &bus, const std::string &busTemplate, const std::string &parameters);
        ~Service();

        Service(const Service &) = delete;
        Service &operator=(const Service &) = delete;

        void Pause() const { mProcess->Pause(); }
        void Resume() const { mProcess->Resume(); }

    private:
        MockBus &mBus;
        std::string mName;
        std::unique_ptr<MockProcess> mProcess;
    };

    /** What this machine lacks for a mocked bus, as the reason to skip a test; empty: nothing. */
    static std::optional<std::string> Missing();

    /** Starts the bus. */
    MockBus();
    ~MockBus();

    MockBus(const MockBus &) = delete;
    MockBus &operator=(const MockBus &) = delete;

    /** Ends the bus; every connection to it is lost. */
    void Stop();

    /** Starts it again, at the same address. */
    void Start();

    const std::string &Address() const { return mAddress; }

    /** Lets the bus say that it can start a service; from the next Start() on. */
    void AddStartable(const std::string &name) const;

    /**
     * Runs a mocked service and waits until it is there.
     *
     * @param busTemplate  "logind", "upower", "low_memory_monitor" or "bluez5"
     * @param parameters   of the template, as JSON
     */
    std::unique_ptr<Service> Run(const std::string &busTemplate,
                                 const std::string &parameters = "{}");

    /**
     * Calls a method; fails the test when that fails.
     *
     * @param parameters  as GVariant text: "('hci0', 'watch')"
     * @return what it returned, as GVariant text
     */
    std::string Call(const std::string &name, const std::string &path, const std::string &interface,
                     const std::string &method, const std::string &parameters = "()") const;

    /** Sets a property of a mocked object, which tells of it. */
    void SetProperty(const std::string &name, const std::string &path, const std::string &interface,
                     const std::string &property, const std::string &value) const;

private:
    struct Client;

    bool HasOwner(const std::string &name) const;

    std::string mDirectory;
    std::string mAddress;
    std::optional<std::string> mOldAddress;
    std::unique_ptr<MockProcess> mDaemon;
    /** The test's own connection. */
    std::unique_ptr<Client> mClient;
};

} // namespace ParvanePlatform
