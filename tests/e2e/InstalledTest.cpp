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
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace fs = std::filesystem;

/**
 * What is installed, away from where it was built. The prefix is not the one of the build, so whatever
 * finds its parts here finds them by where they lie to each other.
 */
class InstalledTest : public ServiceFixture
{
protected:
    void SetUp() override { Install(mPrefix); }

    /** Installs below `prefix`, which comes below `stage` until it has reached its place. */
    void Install(const fs::path &prefix, const fs::path &stage = {})
    {
        Process install({PARVANE_CMAKE, "--install", PARVANE_BUILD_FOLDER, "--prefix", prefix},
                        {{"PATH", "/usr/bin:/bin"}, {"DESTDIR", stage}}, mFolder.Path());
        ASSERT_EQ(install.WaitForEnd(std::chrono::seconds(100)), 0) << install.StandardError();
    }

    /** The command by which the unit that is installed below `prefix` starts the service. */
    static std::string CommandOfUnit(const fs::path &prefix)
    {
        std::istringstream unit(ReadFile(prefix / "lib/systemd/system/parvane.service"));
        for (std::string line; std::getline(unit, line);) {
            if (line.starts_with("ExecStart=")) {
                return line;
            }
        }
        return {};
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

    fs::path mPrefix = mFolder.Path() / "installed";
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

// The module is a package of its own.
TEST_F(InstalledTest, AServiceWithoutTheModuleSaysWhoHasIt)
{
    for (const auto &entry : fs::recursive_directory_iterator(mPrefix)) {
        if (entry.path().filename() == "parvane-platform-bus.so") {
            fs::remove(entry.path());
            break;
        }
    }
    const fs::path configuration = mFolder.Path() / "platform.conf";
    WriteFile(configuration, "[power]\nlock=logind\n");
    Environment environment = BaseEnvironment();
    environment["PARVANE_PLATFORM_CONF"] = configuration;
    Process asking({Installed("parvane")}, environment, mFolder.Path());
    EXPECT_EQ(asking.WaitForEnd(), 1);
    EXPECT_THAT(asking.StandardError(),
                HasSubstr("parvane-platform-bus.so is missing, which the "
                          "configuration asks for: the package parvane-bluetooth has it"));

    WriteFile(configuration,
              "[power]\nlock=auto\n[memory]\nmonitor=auto\n[battery]\nmonitor=auto\n");
    mService = std::make_unique<Process>(std::vector<std::string>{Installed("parvane")},
                                         environment, mFolder.Path());
    EXPECT_TRUE(mService->HasLogged("app_service")) << mService->StandardError();
    EXPECT_THAT(mService->StandardError(), HasSubstr("auto does without the system bus"));
}

TEST_F(InstalledTest, WhatAUserAndTheSystemLookForIsThere)
{
    for (const char *file : {"lib/systemd/system/parvane.service",
                             "lib/sysusers.d/parvane.conf",
                             "share/polkit-1/rules.d/50-parvane.rules",
                             "share/dbus-1/system.d/parvane.conf",
                             "share/man/man1/parvane-host.1",
                             "share/man/man1/parvane-watch.1",
                             "share/bash-completion/completions/parvane-host",
                             "share/bash-completion/completions/parvane-watch",
                             "share/zsh/site-functions/_parvane-host",
                             "share/zsh/site-functions/_parvane-watch",
                             "share/fish/vendor_completions.d/parvane-host.fish",
                             "share/fish/vendor_completions.d/parvane-watch.fish",
                             "share/man/man5/parvane-platform.conf.5",
                             "share/man/man8/parvane.8",
                             "share/pkgconfig/parvane-platform.pc",
                             "share/doc/parvane/wire-format.md",
                             "share/doc/parvane/control.md",
                             "share/doc/parvane/storage.md",
                             "share/doc/parvane/scenarios.md",
                             "share/doc/parvane/examples/walk-and-run.csv",
                             "share/doc/parvane/parvane.service.d/wake-lock.conf",
                             "share/doc/parvane/LICENSE",
                             "include/parvane/platform/context_manager.h"}) {
        EXPECT_TRUE(fs::is_regular_file(mPrefix / file)) << file;
    }
    EXPECT_EQ(OutputOf({Installed("parvane-watch"), "--version"}),
              "parvane-watch " PARVANE_VERSION "\n");
    EXPECT_EQ(OutputOf({Installed("parvane"), "--version"}), "parvane " PARVANE_VERSION "\n");
    OutputOf({Installed("parvane-host"), "--help"});
    OutputOf({Installed("parvane-watch"), "check-config",
              mPrefix / "share/doc/parvane/platform.conf.sample"});
    EXPECT_EQ(CommandOfUnit(mPrefix), "ExecStart=" + Installed("parvane"));
}

TEST_F(InstalledTest, LibrariesThatNobodyElseLinksAreInAFolderOfTheirOwn)
{
    for (const auto &entry : fs::recursive_directory_iterator(mPrefix)) {
        if (entry.path().extension() == ".so" && entry.path().stem() != "libparvane-host") {
            EXPECT_EQ(entry.path().parent_path().filename(), "parvane") << entry.path();
        }
    }
}

TEST_F(InstalledTest, NoFileKnowsWhereItWasBuilt)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizers tell the place of what they find by its whole path";
#endif
    int files = 0;
    for (const auto &entry : fs::recursive_directory_iterator(mPrefix)) {
        if (entry.is_regular_file()) {
            ++files;
            const std::string content = ReadFile(entry.path());
            EXPECT_EQ(content.find(PARVANE_BUILD_FOLDER), std::string::npos) << entry.path();
            EXPECT_EQ(content.find(PARVANE_SOURCE_FOLDER), std::string::npos) << entry.path();
        }
    }
    EXPECT_GT(files, 20);
}

// As a package is made: gathered below a folder, and moved to where it belongs afterwards.
TEST_F(InstalledTest, WhatIsGatheredInAStageWorksWhereverItIsMoved)
{
    const fs::path stage = mFolder.Path() / "stage";
    Install("/opt/watch", stage);
    EXPECT_EQ(CommandOfUnit(stage / "opt/watch"), "ExecStart=/opt/watch/bin/parvane");
    fs::remove_all(mPrefix);
    fs::rename(stage / "opt/watch", mPrefix);

    mService = std::make_unique<Process>(std::vector<std::string>{Installed("parvane")},
                                         BaseEnvironment(), mFolder.Path());
    ASSERT_TRUE(mService->HasLogged("app_service")) << mService->StandardError();
    EXPECT_THAT(Mapped(mService->Pid()), Each(StartsWith(mPrefix.string() + "/")));
    OutputOf({Installed("parvane-watch"), "quit"});
    EXPECT_EQ(mService->WaitForEnd(), 0);
}
