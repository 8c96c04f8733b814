#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "Requests.h"
#include "ServiceFixture.h"

using Parvane::Request::kListSensors;
using Parvane::Request::kMeasureSteps;

namespace {

// The recording counts ten steps every 100 ms.
const std::vector<std::string> kWalk = {"0,72,0,0,0,,,,,", "100,72,10,10,0,,,,,",
                                        "200,72,20,20,0,,,,,"};

/** Where a program is; empty when it is nowhere. */
std::string FindProgram(const std::string &name)
{
    const char *const path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "/usr/bin:/bin" : path);
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::filesystem::path program = std::filesystem::path(folder) / name;
        if (access(program.c_str(), X_OK) == 0) {
            return program.string();
        }
    }
    return {};
}

bool Contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

/** The service under strace: which system calls it makes, in their order. */
class SystemCallTest : public ServiceFixture
{
protected:
    void SetUp() override
    {
        mStrace = FindProgram("strace");
        if (mStrace.empty()) {
            GTEST_SKIP() << "there is no strace here";
        }
        Process probe({mStrace, "-D", "-o", Trace(), "-e", "trace=none", FindProgram("true")},
                      BaseEnvironment(), mFolder.Path());
        probe.WaitForEnd();
        if (!Eventually([&] { return Contains(ReadFile(Trace()), "+++ exited with 0"); },
                        std::chrono::seconds(5))) {
            GTEST_SKIP() << "no process can be traced here: " << probe.StandardError();
        }
    }

    std::string Trace() const { return (mFolder.Path() / "trace").string(); }

    /** The traced service is the child; strace ends with it. */
    void StartTraced()
    {
        Environment environment = BaseEnvironment();
        environment["PARVANE_TRACE"] = WriteRecording(kWalk);
        // It cannot look for leaks while it is traced.
        environment["ASAN_OPTIONS"] += ":detect_leaks=0";
        mService = std::make_unique<Process>(
            std::vector<std::string>{
                mStrace, "-D", "-y", "-s", "4", "-o", Trace(), "-e",
                "trace=?poll,?ppoll,?ppoll_time64,pwrite64,fsync,fdatasync,sendto",
                PARVANE_PROGRAM},
            environment, mFolder.Path());
    }

    std::vector<std::string> StopAndReadCalls()
    {
        EXPECT_EQ(StopService(), 0);
        EXPECT_TRUE(Eventually([&] { return Contains(ReadFile(Trace()), "+++ exited"); }));
        std::istringstream text(ReadFile(Trace()));
        std::vector<std::string> calls;
        for (std::string line; std::getline(text, line);) {
            calls.push_back(line);
        }
        return calls;
    }

    static bool IsSync(const std::string &call)
    {
        return call.starts_with("fsync(") || call.starts_with("fdatasync(");
    }

    static bool IsOnLog(const std::string &call) { return Contains(call, "preferences.db-wal>"); }

    std::string mStrace;
};

TEST_F(SystemCallTest, EveryPushOfStepsFollowsTheSyncOfItsTransaction)
{
    StartTraced();
    {
        const Host host(LinkPath());
        ASSERT_EQ(host.Ask(kMeasureSteps, 5).size(), 5U);
    }
    int pushes = 0;
    bool isWritten = false;
    bool isSynced = false;
    for (const std::string &call : StopAndReadCalls()) {
        if (Contains(call.substr(0, call.find('(')), "poll")) {
            isWritten = false; // the next turn of the loop
            isSynced = false;
        } else if (call.starts_with("pwrite64(") && IsOnLog(call)) {
            isWritten = true;
            isSynced = false;
        } else if (IsSync(call) && IsOnLog(call)) {
            isSynced = isWritten;
        } else if (call.starts_with("sendto(") && Contains(call, R"("\2\0\16\2"..., 18,)")) {
            ++pushes;
            EXPECT_TRUE(isSynced) << "push " << pushes;
            isWritten = false; // the next push of this turn has a transaction of its own
            isSynced = false;
        }
    }
    EXPECT_GE(pushes, 5);
}

TEST_F(SystemCallTest, FirstStartMakesTheNamesOfItsFilesDurable)
{
    StartTraced();
    ASSERT_TRUE(mService->HasLogged("app_service"));

    const std::vector<std::string> calls = StopAndReadCalls();

    for (const std::filesystem::path &folder : {mFolder.Path(), mStateDirectory}) {
        const std::string place = "<" + folder.string() + ">)";
        EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [&place](const std::string &call) {
            return IsSync(call) && Contains(call, place);
        })) << place;
    }
}

TEST_F(SystemCallTest, AnswersThatStoreNothingWaitForNoDisk)
{
    StartTraced();
    {
        const Host host(LinkPath());
        ASSERT_EQ(host.Ask(kListSensors, 5).size(), 5U);
        ASSERT_EQ(host.Ask({0x02, 0x00, 0x00, 0x04}, 1).size(), 1U); // worn state
        ASSERT_EQ(host.Ask({0x02, 0x00, 0x00, 0x03}, 1).size(), 1U); // heart rate
        ASSERT_EQ(host.Ask(kListSensors, 5).size(), 5U);
    }
    const int answers = 5 + 1 + 1 + 5;
    int sent = 0;
    int syncs = 0;
    for (const std::string &call : StopAndReadCalls()) {
        sent += call.starts_with("sendto(") ? 1 : 0;
        // Before the first answer there is the start, behind the last one the orderly end.
        syncs += IsSync(call) && sent > 0 && sent < answers ? 1 : 0;
    }
    EXPECT_EQ(sent, answers);
    EXPECT_EQ(syncs, 0);
}

/** The service on a disk of its own, which the test can fill. */
class FullDiskTest : public ServiceFixture
{
protected:
    void SetUp() override
    {
        Process probe(
            {FindProgram("unshare"), "-m", FindProgram("mount"), "-t", "tmpfs", "none", "/mnt"},
            BaseEnvironment(), mFolder.Path());
        if (probe.WaitForEnd() != 0) {
            GTEST_SKIP() << "no file system can be mounted here: " << probe.StandardError();
        }
    }

    void StartOnSmallDisk(const std::string &address = "AA:BB:CC:DD:EE:0F")
    {
        Environment environment = BaseEnvironment();
        environment["PARVANE_BT_ADDRESS"] = address;
        environment["PARVANE_TRACE"] = WriteRecording(kWalk);
        environment["PATH"] = "/usr/bin:/bin:/usr/sbin:/sbin";
        std::filesystem::create_directory(mStateDirectory);
        const std::string script = "mount -t tmpfs -o size=256k,mode=700 none '" +
                                   mStateDirectory.string() + "' && exec '" PARVANE_PROGRAM "'";
        mService = std::make_unique<Process>(
            std::vector<std::string>{FindProgram("unshare"), "-m", "/bin/sh", "-c", script},
            environment, mFolder.Path());
    }

    /** The service's disk, which nobody else has mounted. */
    std::filesystem::path Disk() const
    {
        return "/proc/" + std::to_string(mService->Pid()) + "/root" + mStateDirectory.string();
    }

    void FillDisk() const
    {
        std::ofstream file(Disk() / "ballast", std::ios::binary);
        const std::string block(512, 'x');
        while (file.write(block.data(), static_cast<std::streamsize>(block.size())) &&
               file.flush()) {
        }
    }
};

TEST_F(FullDiskTest, StepsWaitForRoomWhileEverythingElseIsAnswered)
{
    StartOnSmallDisk();
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask(kMeasureSteps, 2).size(), 2U);

    FillDisk();
    ASSERT_TRUE(mService->HasLogged("preferences.db cannot be saved: "));
    float last = -1.0F;
    while (const auto push = host.Receive(std::chrono::milliseconds(0))) {
        last = ValueOf(*push);
    }

    const auto list = host.Ask(kListSensors, 5); // nothing but the list: no push comes between
    ASSERT_EQ(list.size(), 5U);
    EXPECT_EQ(list[0].size(), 13U);
    EXPECT_EQ(list[4].size(), 25U);
    EXPECT_EQ(host.Receive(std::chrono::milliseconds(500)), std::nullopt);

    std::filesystem::remove(Disk() / "ballast");

    const auto push = host.Receive();
    ASSERT_TRUE(push.has_value());
    EXPECT_GT(ValueOf(*push), last);
}

TEST_F(FullDiskTest, AddressThatCannotBeKeptIsMadeForTheRun)
{
    StartOnSmallDisk("");
    const Host host(LinkPath());
    ASSERT_TRUE(mService->HasLogged("app_service"));
    FillDisk();

    const auto list = host.Ask(kListSensors, 5);
    ASSERT_EQ(list.size(), 5U);
    const Bytes address(list[0].begin() + 6, list[0].begin() + 12);
    EXPECT_NE(address, Bytes(6, 0));
    EXPECT_EQ(host.Ask(kListSensors, 5).at(0), list[0]);
    EXPECT_TRUE(mService->HasLogged("bluetooth-address: No space left on device; it is "));
}
