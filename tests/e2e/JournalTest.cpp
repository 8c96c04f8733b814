#include <csignal>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "ServiceFixture.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

namespace {

constexpr const char *kJournald = "/lib/systemd/systemd-journald";

// Says where standard error leads, as the service manager does, and becomes the service.
constexpr const char *kStartService =
    "export JOURNAL_STREAM=$(stat -L -c %d:%i /proc/self/fd/2); exec \"$@\"";

using Entry = std::map<std::string, std::string>;

} // namespace

/**
 * The real service and a real journal, which has a /run of its own: a mount namespace in which
 * nothing else of this machine is different.
 */
class JournalTest : public ServiceFixture
{
protected:
    void SetUp() override
    {
        if (!std::filesystem::exists(kJournald)) {
            GTEST_SKIP() << "this machine has no journal";
        }
        const std::string script =
            "mount -t tmpfs tmpfs /run && "
            "mkdir -p /run/systemd/journal /run/log/journal /run/systemd/journald.conf.d && "
            "printf '[Journal]\\nStorage=volatile\\nReadKMsg=no\\nAudit=\\nRuntimeMaxUse=16M\\n"
            "ForwardToWall=no\\nForwardToSyslog=no\\nRateLimitIntervalSec=0\\n' "
            "> /run/systemd/journald.conf.d/test.conf && exec " +
            std::string(kJournald);
        mJournald = std::make_unique<Process>(
            std::vector<std::string>{"/usr/bin/unshare", "--mount", "--propagation", "private",
                                     "/bin/sh", "-c", script},
            Environment{{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}}, mFolder.Path());
        const std::string socket =
            "/proc/" + std::to_string(mJournald->Pid()) + "/root/run/systemd/journal/stdout";
        const bool isUp = Eventually([&] {
            return std::filesystem::exists(socket) ||
                   mJournald->WaitForEnd(std::chrono::seconds(0));
        });
        if (!isUp || !std::filesystem::exists(socket)) {
            GTEST_SKIP() << "no journal can be started on this machine: "
                         << mJournald->StandardError();
        }
    }

    /** A command inside of the journal's namespace. */
    std::vector<std::string> Inside(std::vector<std::string> command) const
    {
        std::vector<std::string> all = {"/usr/bin/nsenter", "--mount", "--target",
                                        std::to_string(mJournald->Pid())};
        all.insert(all.end(), command.begin(), command.end());
        return all;
    }

    /** Starts the service with standard error connected to the journal. */
    void StartInJournal(const Environment &more, std::vector<std::string> before = {})
    {
        std::vector<std::string> command = {"/usr/bin/systemd-cat", "--identifier=stream"};
        command.insert(command.end(), before.begin(), before.end());
        command.insert(command.end(), {"/bin/sh", "-c", kStartService, "sh", PARVANE_PROGRAM});
        Environment environment = BaseEnvironment();
        environment["PATH"] = "/usr/bin:/bin";
        for (const auto &[name, value] : more) {
            environment[name] = value;
        }
        mService = std::make_unique<Process>(Inside(command), environment, mFolder.Path());
    }

    std::vector<Entry> Entries() const
    {
        Process reader(Inside({"/usr/bin/journalctl", "--directory=/run/log/journal", "--all",
                               "--output=json", "--no-pager", "--quiet"}),
                       {{"PATH", "/usr/bin:/bin"}}, mFolder.Path());
        EXPECT_EQ(reader.WaitForEnd(), 0);
        std::vector<Entry> entries;
        std::istringstream lines(reader.StandardOutput());
        for (std::string line; std::getline(lines, line);) {
            Entry &entry = entries.emplace_back();
            const auto fields = nlohmann::json::parse(line);
            for (const auto &[name, value] : fields.items()) {
                entry[name] = value.is_string() ? value.get<std::string>() : value.dump();
            }
        }
        return entries;
    }

    /** The first entry whose message has `text` in it, waiting for it; empty when none comes. */
    Entry FindEntry(const std::string &text) const
    {
        Entry found;
        Eventually([&] {
            for (const Entry &entry : Entries()) {
                const auto message = entry.find("MESSAGE");
                if (message != entry.end() && message->second.find(text) != std::string::npos) {
                    found = entry;
                }
            }
            return !found.empty();
        });
        return found;
    }

    std::unique_ptr<Process> mJournald;
};

TEST_F(JournalTest, LineOfTheServiceHasFieldsAndItsWholeText)
{
    StartInJournal({});

    Entry entry = FindEntry("app_create");

    EXPECT_EQ(entry["MESSAGE"], "ParvaneMain: app_create(41) >  ###");
    EXPECT_EQ(entry["PRIORITY"], "6");
    EXPECT_EQ(entry["SYSLOG_IDENTIFIER"], "parvane");
    EXPECT_EQ(entry["PARVANE_TAG"], "Parvane");
    EXPECT_EQ(entry["CODE_FILE"], "ParvaneMain");
    EXPECT_EQ(entry["CODE_FUNC"], "app_create");
    EXPECT_EQ(entry["CODE_LINE"], "41");
    EXPECT_EQ(entry["_TRANSPORT"], "journal");
    EXPECT_EQ(entry["_PID"], std::to_string(mService->Pid()));
    EXPECT_THAT(mService->StandardError(), IsEmpty());
}

TEST_F(JournalTest, LineOfTheRuntimeHasItsPlaceInTheSource)
{
    StartInJournal({{"PARVANE_SPEED", "fast"}});

    Entry entry = FindEntry("PARVANE_SPEED");

    EXPECT_THAT(entry["MESSAGE"], HasSubstr("PARVANE_SPEED is 'fast'"));
    EXPECT_EQ(entry["PRIORITY"], "3");
    EXPECT_EQ(entry["PARVANE_TAG"], "platform");
    EXPECT_THAT(entry["CODE_FILE"], EndsWith("platform/linux/api/service_app.cpp"));
    EXPECT_EQ(entry["CODE_FUNC"], "service_app_main");
    EXPECT_THAT(entry["CODE_LINE"], MatchesRegex("[0-9]+"));
    EXPECT_EQ(entry["_TRANSPORT"], "journal");
}

TEST_F(JournalTest, NoEntryHasAColourOrAControlCharacter)
{
    StartInJournal({});
    ASSERT_THAT(FindEntry("app_create"), Not(IsEmpty()));
    mService->Signal(SIGTERM);
    ASSERT_EQ(mService->WaitForEnd(), 0);
    ASSERT_THAT(FindEntry("app_terminate"), Not(IsEmpty()));

    for (Entry &entry : Entries()) {
        // What is not all text is shown as an array of bytes.
        EXPECT_THAT(entry["MESSAGE"], Not(HasSubstr("\033")));
        EXPECT_THAT(entry["MESSAGE"], Not(::testing::StartsWith("[")));
        EXPECT_NE(entry["_TRANSPORT"], "stdout") << entry["MESSAGE"];
    }
}

TEST_F(JournalTest, WithoutTheJournalsSocketLinesComeAsText)
{
    const std::string hide = "mount -t tmpfs tmpfs /run/systemd && exec \"$@\"";
    StartInJournal({}, {"/usr/bin/unshare", "--mount", "/bin/sh", "-c", hide, "sh"});

    Entry entry = FindEntry("app_create");

    EXPECT_THAT(entry["MESSAGE"], EndsWith(" I Parvane: ParvaneMain: app_create(41) >  ###"));
    EXPECT_EQ(entry["SYSLOG_IDENTIFIER"], "stream");
    EXPECT_EQ(entry["_TRANSPORT"], "stdout");
    EXPECT_EQ(entry.count("CODE_FILE"), 0U);
}

TEST_F(JournalTest, StandardErrorThatWasTurnedElsewhereStaysAsItWas)
{
    Environment environment = BaseEnvironment();
    environment["JOURNAL_STREAM"] = "8:12345";
    mService = std::make_unique<Process>(Inside({PARVANE_PROGRAM}), environment, mFolder.Path());

    ASSERT_TRUE(mService->HasLogged("app_service"));

    EXPECT_THAT(mService->StandardError(),
                HasSubstr(" I Parvane: ParvaneMain: app_create(41) >  ###\n"));
}
