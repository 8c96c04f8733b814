#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ServiceFixture.h"

using nlohmann::json;
using ::testing::Contains;
using ::testing::Each;
using ::testing::StartsWith;

namespace fs = std::filesystem;

/**
 * What is installed, away from where it was built. The prefix is not the one of the build, so whatever
 * finds its parts here finds them by where they lie to each other.
 */
class InstalledTest : public ServiceFixture
{
protected:
    void SetUp() override
    {
        const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
        mPrefix = fs::path(PARVANE_INSTALL_FOLDER) / test->name();
        fs::remove_all(mPrefix);
        Process install({PARVANE_CMAKE, "--install", PARVANE_BUILD_FOLDER, "--prefix", mPrefix},
                        {{"PATH", "/usr/bin:/bin"}}, mFolder.Path());
        ASSERT_EQ(install.WaitForEnd(std::chrono::seconds(100)), 0) << install.StandardError();
    }

    void TearDown() override
    {
        if (!HasFailure()) {
            fs::remove_all(mPrefix);
        }
    }

    std::string Installed(const char *program) const { return mPrefix / "bin" / program; }

    /** What an installed program prints; it has to succeed. */
    std::string OutputOf(const std::vector<std::string> &command) const
    {
        Process process(command, BaseEnvironment(), mFolder.Path());
        EXPECT_EQ(process.WaitForEnd(), 0) << command.front() << ": " << process.StandardError();
        return process.StandardOutput();
    }

    /** The programs and libraries of this project that a process has mapped. */
    static std::set<std::string> Mapped(pid_t pid)
    {
        std::istringstream maps(ReadFile("/proc/" + std::to_string(pid) + "/maps"));
        std::set<std::string> files;
        for (std::string line; std::getline(maps, line);) {
            const fs::path path = line.substr(std::min(line.find('/'), line.size()));
            if (path.filename().string().find("parvane") != std::string::npos) {
                files.insert(path);
            }
        }
        return files;
    }

    fs::path mPrefix;
};

TEST_F(InstalledTest, TheServiceLoadsItsLibraryAndItsModuleFromWhereItIsInstalled)
{
    const fs::path configuration = mFolder.Path() / "platform.conf";
    WriteFile(configuration, "[sensors]\nheart_rate=ble\n[power]\nlock=logind\n");
    Environment environment = BaseEnvironment();
    environment["PARVANE_PLATFORM_CONF"] = configuration;
    environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + (mFolder.Path() / "no-bus").string();
    mService = std::make_unique<Process>(std::vector<std::string>{Installed("parvane")},
                                         environment, mFolder.Path());
    ASSERT_TRUE(mService->HasLogged("app_service")) << mService->StandardError();

    const std::set<std::string> mapped = Mapped(mService->Pid());
    EXPECT_THAT(mapped, Each(StartsWith(mPrefix.string() + "/")));
    const auto has = [&mapped](const std::string &name) {
        return std::any_of(mapped.begin(), mapped.end(),
                           [&name](const std::string &path) { return path.ends_with("/" + name); });
    };
    EXPECT_TRUE(has("bin/parvane"));
    EXPECT_TRUE(has("libparvane-platform.so"));
    EXPECT_TRUE(has("parvane-platform-bus.so"));

    const json status =
        json::parse(OutputOf({Installed("parvane-watch"), "status", "--json"}), nullptr, false);
    ASSERT_TRUE(status.is_object());
    EXPECT_EQ(status.at("service").at("pid"), mService->Pid());
    std::vector<std::string> sources;
    for (const json &item : status.at("items")) {
        sources.push_back(item.at("item").get<std::string>() + " " +
                          item.at("source").get<std::string>());
    }
    EXPECT_THAT(sources, Contains("heart_rate ble"));

    OutputOf({Installed("parvane-watch"), "quit"});
    EXPECT_EQ(mService->WaitForEnd(), 0);
}

TEST_F(InstalledTest, WhatAUserAndTheSystemLookForIsThere)
{
    for (const char *file :
         {"lib/systemd/system/parvane.service", "lib/sysusers.d/parvane.conf",
          "share/polkit-1/rules.d/50-parvane.rules", "share/dbus-1/system.d/parvane.conf",
          "share/man/man1/parvane-watch.1", "share/man/man5/parvane-platform.conf.5",
          "share/doc/parvane/parvane.service.d/wake-lock.conf"}) {
        EXPECT_TRUE(fs::is_regular_file(mPrefix / file)) << file;
    }
    EXPECT_EQ(OutputOf({Installed("parvane-watch"), "--version"}),
              "parvane-watch " PARVANE_VERSION "\n");
    OutputOf({Installed("parvane-host"), "--help"});
    OutputOf({Installed("parvane-watch"), "check-config",
              mPrefix / "share/doc/parvane/platform.conf.sample"});
}
