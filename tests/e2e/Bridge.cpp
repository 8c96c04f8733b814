#include "Bridge.h"

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>

#include "Process.h"

namespace {

class Bridge
{
public:
    Bridge(const char *program, const std::filesystem::path &watch) : mWatch(watch)
    {
        Environment environment = PassedOn();
        environment["TMPDIR"] = mFolder.Path();
        // Begins again while other tests have all that the machine has of inotify.
        const bool serves = Eventually([&] {
            if (!mProcess || mProcess->WaitForEnd(std::chrono::seconds(0))) {
                mProcess =
                    std::make_unique<Process>(std::vector<std::string>{program, watch, Socket()},
                                              environment, mFolder.Path());
            }
            return mProcess->StandardError().find("bridge: serving") != std::string::npos;
        });
        if (!serves) {
            throw std::runtime_error("the bridge does not serve: " + mProcess->StandardError());
        }
    }

    ~Bridge()
    {
        mProcess->Signal(SIGTERM); // it has programs and a folder of its own
        mProcess->WaitForEnd();
        if (testing::Test::HasFailure()) {
            std::cerr << mProcess->StandardError();
        }
    }

    Bridge(const Bridge &) = delete;
    Bridge &operator=(const Bridge &) = delete;

    std::filesystem::path Socket() const { return mFolder.Path() / "phone.sock"; }
    const std::filesystem::path &Watch() const { return mWatch; }

private:
    TemporaryFolder mFolder;
    std::filesystem::path mWatch;
    std::unique_ptr<Process> mProcess;
};

} // namespace

std::filesystem::path PhoneSocket(const std::filesystem::path &link)
{
    static std::unique_ptr<Bridge> bridge;
    const char *const program = std::getenv("PARVANE_TEST_BRIDGE");
    if (program == nullptr) {
        return link;
    }
    if (!bridge || bridge->Watch() != link.parent_path()) {
        bridge.reset();
        bridge = std::make_unique<Bridge>(program, link.parent_path());
    }
    return bridge->Socket();
}
