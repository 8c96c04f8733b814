#include "CheckConfig.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneWatch {

namespace {

const std::string kSilent = "heart_rate: none\npedometer: none\nactivity: none\ngesture: none\n";

/** A recording of these rows. */
std::string Recording(const std::string &rows)
{
    return "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,calories_kcal,speed,"
           "activity,gesture\n" +
           rows;
}

} // namespace

/** A folder with a configuration file, and what the check of it has printed. */
class CheckConfigTest : public testing::Test
{
public:
    CheckConfigTest()
    {
        std::string name = (std::filesystem::temp_directory_path() / "parvane-XXXXXX").string();
        mFolder = mkdtemp(name.data());
        mPath = mFolder / "platform.conf";
    }
    ~CheckConfigTest() override { std::filesystem::remove_all(mFolder); }

    CheckConfigTest(const CheckConfigTest &) = delete;
    CheckConfigTest &operator=(const CheckConfigTest &) = delete;

protected:
    /** Writes a file of the folder. */
    void Write(const std::string &name, const std::string &text) const
    {
        std::ofstream(mFolder / name) << text;
    }

    int Check(bool json = false)
    {
        mOut.str("");
        mErr.str("");
        return CheckConfig(mPath.string(), json, mOut, mErr);
    }

    int CheckText(const std::string &text, bool json = false)
    {
        Write("platform.conf", text);
        return Check(json);
    }

    std::filesystem::path mFolder;
    std::filesystem::path mPath;
    std::ostringstream mOut;
    std::ostringstream mErr;
};

TEST_F(CheckConfigTest, AnEmptyFileIsFineAndTellsTheSources)
{
    EXPECT_EQ(CheckText(""), 0);
    EXPECT_EQ(mOut.str(), kSilent + mPath.string() + ": ok\n");
    EXPECT_EQ(mErr.str(), "");
}

TEST_F(CheckConfigTest, SourcesAreThoseThatTheServiceWouldUse)
{
    Write("run.csv", Recording("0,60,,,,,,,,\n"));
    EXPECT_EQ(CheckText("[sensors]\nheart_rate=ble\npedometer=iio\ngesture=manual\n"
                        "[replay]\nfiles=run.csv\n"),
              0);
    EXPECT_EQ(mOut.str(), "heart_rate: ble\npedometer: iio\nactivity: replay\ngesture: manual\n" +
                              mPath.string() + ": ok\n");
}

TEST_F(CheckConfigTest, WarningsDoNotStopTheService)
{
    EXPECT_EQ(CheckText("[control]\nport=1\n"), 0);
    EXPECT_EQ(mErr.str(),
              "warning: " + mPath.string() +
                  ": line 2: unknown key 'port' in [control]; known are enabled, allow\n");
    EXPECT_EQ(mOut.str(), kSilent + mPath.string() + ": ok, with 1 warning\n");
    EXPECT_EQ(CheckText("[control]\nport=1\nhost=2\n"), 0);
    EXPECT_THAT(mOut.str(), testing::EndsWith(": ok, with 2 warnings\n"));
}

TEST_F(CheckConfigTest, AllProblemsAreToldAtOnce)
{
    EXPECT_EQ(CheckText("[control]\nenabled=no\nport=1\n[iio]\nroot=sys\n"), 1);
    EXPECT_EQ(mErr.str(),
              "error: " + mPath.string() +
                  ": line 2: [control] enabled is 'no': it must be true, false, 1 or 0\n"
                  "warning: " +
                  mPath.string() +
                  ": line 3: unknown key 'port' in [control]; known are enabled, allow\n"
                  "error: " +
                  mPath.string() + ": line 5: [iio] root is 'sys': it must be an absolute path\n");
    EXPECT_EQ(mOut.str(), "");
}

TEST_F(CheckConfigTest, TheEnvironmentDoesNotCount)
{
    setenv("PARVANE_TRACE", "run.csv", 1);
    EXPECT_EQ(CheckText("[sensors]\npedometer=replay\n"), 1);
    unsetenv("PARVANE_TRACE");
    EXPECT_EQ(mErr.str(), "error: " + mPath.string() +
                              ": line 2: [sensors] pedometer is 'replay': there must be a "
                              "recording then, in [replay] files or PARVANE_TRACE\n");
}

TEST_F(CheckConfigTest, RecordingsThatCannotBeReadAreErrors)
{
    std::filesystem::create_directory(mFolder / "folder");
    EXPECT_EQ(CheckText("[replay]\nfiles=no.csv;folder\nx=1\n"), 1);
    const std::string cannot =
        "error: " + mPath.string() + ": line 2: [replay] files: cannot read the recording ";
    EXPECT_EQ(mErr.str(), cannot + mFolder.string() + "/no.csv: No such file or directory\n" +
                              cannot + mFolder.string() + "/folder: Is a directory\n" +
                              "warning: " + mPath.string() +
                              ": line 3: unknown key 'x' in [replay]; known are files, speed, "
                              "loop\n");
}

TEST_F(CheckConfigTest, RecordingsThatTheServiceWouldNotPlayAreErrors)
{
    Write("empty.csv", "");
    Write("bad.csv", Recording("0,60,,,,,,,,\n1,6x,,,,,,,,\n"));
    EXPECT_EQ(CheckText("[replay]\nfiles=empty.csv;bad.csv\n"), 1);
    const std::string error =
        "error: " + mPath.string() + ": line 2: [replay] files: " + mFolder.string();
    EXPECT_EQ(mErr.str(), error + "/empty.csv: there is no line of column names\n" + error +
                              "/bad.csv: line 3, column 2 (heart_rate): '6x' is not a whole number "
                              "of 32 bits\n");
    EXPECT_EQ(mOut.str(), "");
}

TEST_F(CheckConfigTest, RecordingsThatAreFineButNotInTurnAreAnError)
{
    Write("long.csv", Recording("999999999999,60,,,,,,,,\n"));
    EXPECT_EQ(CheckText("[replay]\nfiles=long.csv\n"), 0);
    EXPECT_EQ(CheckText("[replay]\nfiles=long.csv;long.csv\n"), 1);
    EXPECT_EQ(mErr.str(), "error: " + mPath.string() +
                              ": line 2: [replay] files: " + mFolder.string() +
                              "/long.csv: it begins at 1000000000999 ms of the recordings that are "
                              "played in turn, which would end after 1000000000000 ms\n");
}

TEST_F(CheckConfigTest, NamesOfFilesCannotForgeALine)
{
    mPath = mFolder / "a\nerror: b.conf";
    std::ofstream(mPath) << "[replay]\nfiles=run\\nok: \x1b[31m.csv\n";
    EXPECT_EQ(Check(), 1);
    const std::string folder = mFolder.string();
    EXPECT_EQ(mErr.str(), "error: " + folder +
                              "/a\\x0Aerror: b.conf: line 2: [replay] files: cannot read the "
                              "recording " +
                              folder + "/run\\x0Aok: \\x1B[31m.csv: No such file or directory\n");
    std::ofstream(mPath) << "";
    EXPECT_EQ(Check(), 0);
    EXPECT_EQ(mOut.str(), kSilent + folder + "/a\\x0Aerror: b.conf: ok\n");
    mPath = mFolder / "no\nsuch";
    EXPECT_EQ(Check(), 2);
    EXPECT_EQ(mErr.str(), "error: cannot read the configuration file " + folder +
                              "/no\\x0Asuch: No such file or directory\n");
}

TEST_F(CheckConfigTest, RecordingsThatNobodyPlaysAreNotLookedFor)
{
    EXPECT_EQ(CheckText("[replay]\nfiles=no.csv\n[sensors]\nheart_rate=none\npedometer=none\n"
                        "activity=manual\ngesture=none\n"),
              0);
}

TEST_F(CheckConfigTest, AFileThatIsNoKeyFileIsAnError)
{
    EXPECT_EQ(CheckText("root=/sys\n"), 1);
    EXPECT_EQ(mErr.str(),
              "error: " + mPath.string() + ": line 1: Key file does not start with a group\n");
}

TEST_F(CheckConfigTest, AFileThatCannotBeReadIsTold)
{
    EXPECT_EQ(Check(), 2);
    EXPECT_EQ(mErr.str(), "error: cannot read the configuration file " + mPath.string() +
                              ": No such file or directory\n");
    EXPECT_EQ(mOut.str(), "");
}

TEST_F(CheckConfigTest, JsonOfAFineFile)
{
    EXPECT_EQ(CheckText("", true), 0);
    EXPECT_EQ(mOut.str(), R"({"file":")" + mPath.string() + "\",\"ok\":true,\"problems\":[]}\n");
    EXPECT_EQ(mErr.str(), "");
}

TEST_F(CheckConfigTest, JsonOfProblems)
{
    EXPECT_EQ(CheckText("[what]\n[control]\nenabled=no\n", true), 1);
    EXPECT_EQ(mErr.str(), "");
    EXPECT_EQ(nlohmann::json::parse(mOut.str()),
              nlohmann::json::parse(R"({"file": ")" + mPath.string() + R"(", "ok": false,
                  "problems": [
                      {"severity": "warning", "line": 1, "section": "what", "key": null,
                       "message": "unknown section [what]; known are sensors, replay, iio, ble, power, memory, battery, bluetooth, link, control, log, directories"},
                      {"severity": "error", "line": 3, "section": "control", "key": "enabled",
                       "message": "[control] enabled is 'no': it must be true, false, 1 or 0"}]})"));
}

TEST_F(CheckConfigTest, JsonOfAFileThatCannotBeRead)
{
    EXPECT_EQ(Check(true), 2);
    EXPECT_EQ(mErr.str(), "");
    EXPECT_EQ(nlohmann::json::parse(mOut.str()),
              nlohmann::json::parse(R"({"file": ")" + mPath.string() + R"(", "ok": false,
                  "problems": [{"severity": "error", "line": null, "section": null, "key": null,
                      "message": "cannot read the configuration file )" +
                                    mPath.string() + R"(: No such file or directory"}]})"));
}

TEST_F(CheckConfigTest, JsonCanHoldAnyFileName)
{
    mPath = mFolder / "\xFF\"";
    Write("\xFF\"", "");
    EXPECT_EQ(Check(true), 0);
    EXPECT_EQ(nlohmann::json::parse(mOut.str())["file"], mFolder.string() + "/\xEF\xBF\xBD\"");
}

} // namespace ParvaneWatch
