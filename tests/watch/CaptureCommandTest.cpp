#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Program.h"
#include "ScriptedService.h"

namespace ParvaneWatch {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

std::string PacketEvent(const std::string &from, const std::string &bytes, int link = 1)
{
    return json({{"event", "packet"},
                 {"time_us", 1769862896789012},
                 {"link", link},
                 {"from", from},
                 {"size", bytes.size() / 2},
                 {"bytes", bytes}})
        .dump();
}

/** The command that captures, and the service that tells it. */
class CaptureCommandTest : public testing::Test
{
protected:
    Parvane::Program Start(std::vector<std::string> more = {})
    {
        std::vector<std::string> command{PARVANE_WATCH_PROGRAM, "--socket", mService.Path(),
                                         "capture", File()};
        command.insert(command.end(), more.begin(), more.end());
        return Parvane::Program(command, {});
    }

    /** Accepts the command, and has it begin. */
    void Accept()
    {
        EXPECT_EQ(json::parse(mService.AcceptRequest()),
                  json({{"version", 1}, {"request", "capture"}}));
        mService.Send(R"({"version":1,"ok":true})");
    }

    [[nodiscard]] std::string File() const { return mService / "link.pcapng"; }

    [[nodiscard]] std::string Content() const
    {
        std::ifstream file(File(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /** Waits until the file has grown to some size: 48 at its beginning. */
    [[nodiscard]] bool SizeBecomes(std::size_t size) const
    {
        for (int i = 0; i < 4000 && Content().size() != size; ++i) {
            ::usleep(5000);
        }
        return Content().size() == size;
    }

    // A block with 4 bytes, or with the comment of a link's first packet as well.
    static constexpr std::size_t kBeginning = 48;
    static constexpr std::size_t kPacket = 48;
    static constexpr std::size_t kFirstPacket =
        kPacket + 4 + sizeof("link begins, run capture-1769862896789012") - 1 + 3;

    ScriptedService mService;
};

TEST_F(CaptureCommandTest, EachPacketIsInTheFileWhenItComesWhateverEndsTheCommand)
{
    Parvane::Program watch = Start();
    Accept();
    EXPECT_TRUE(SizeBecomes(kBeginning));
    mService.Send(PacketEvent("phone", "12000003"));
    mService.Send(PacketEvent("watch", "1402ab03"));
    EXPECT_TRUE(SizeBecomes(kBeginning + kFirstPacket + kPacket));
    watch.Signal(SIGKILL);
    EXPECT_EQ(watch.Wait(), -SIGKILL);

    const std::string content = Content();
    // The time, 1769862896789012 us, the high half first; both lengths; the packet.
    EXPECT_THAT(content, HasSubstr(std::string(
                             "\xae\x49\x06\x00\x14\xa6\x43\x51\4\0\0\0\4\0\0\0\x12\0\0\3", 20)));
    EXPECT_THAT(content, HasSubstr("link begins, run capture-1769862896789012"));
    EXPECT_THAT(content, HasSubstr(std::string("\x14\x02\xab\3\2\0\4\0\1\0\0\0", 12)));
}

TEST_F(CaptureCommandTest, ASignalEndsItWellWithWhatWasThereBefore)
{
    Parvane::Program watch = Start({"--json"});
    Accept();
    EXPECT_TRUE(SizeBecomes(kBeginning));
    for (int i = 0; i < 50; ++i) {
        mService.Send(PacketEvent("phone", "12000003"));
    }
    watch.Signal(SIGINT);

    EXPECT_EQ(watch.ReadOutput(), "{\"missed\":0,\"packets\":50}\n");
    EXPECT_EQ(watch.Wait(), 0);
    EXPECT_EQ(watch.ReadErrors(), "");
    EXPECT_EQ(Content().size(), kBeginning + kFirstPacket + 49 * kPacket);
}

TEST_F(CaptureCommandTest, AnotherLinkAndWhatIsMissingAreSaidInTheFile)
{
    Parvane::Program watch = Start();
    Accept();
    mService.Send(PacketEvent("phone", "12000003", 1));
    mService.Send(PacketEvent("phone", "12000003", 2));
    mService.Send(R"({"event":"missed","count":12})");
    mService.Send(PacketEvent("phone", "12000003", 2));
    mService.Send(R"({"event":"from a later version"})");
    mService.Send(R"({"end":"service-ended"})");

    EXPECT_EQ(watch.ReadErrors(),
              "parvane-watch: 12 packets are missing: they could not be taken in time\n");
    EXPECT_EQ(watch.Wait(), 1);
    const std::string content = Content();
    const std::size_t first = content.find("link begins, run capture-");
    EXPECT_NE(content.find("link begins, run capture-", first + 1), std::string::npos);
    EXPECT_GT(content.find("packets are missing here"), kBeginning + 2 * kFirstPacket);
    EXPECT_NE(content.find("packets are missing here"), std::string::npos);
}

TEST_F(CaptureCommandTest, ItEndsWhenTheLinkIsQuietAfterAPacketOrTheTimeIsOver)
{
    {
        Parvane::Program watch = Start({"--until-quiet", "1"});
        Accept();
        ::usleep(1500000); // nothing has come yet: that is no quiet
        mService.Send(PacketEvent("phone", "12000003"));
        EXPECT_EQ(watch.Wait(), 0);
        EXPECT_EQ(Content().size(), kBeginning + kFirstPacket);
        mService.HangUp();
    }
    Parvane::Program watch = Start({"--for", "1", "--force"});
    Accept();
    EXPECT_EQ(watch.Wait(), 0);
    EXPECT_EQ(Content().size(), kBeginning);
}

TEST_F(CaptureCommandTest, AFileThatIsThereIsOverwrittenOnlyWithForce)
{
    std::ofstream(File()) << "dear";
    {
        Parvane::Program watch = Start();
        Accept();
        EXPECT_EQ(watch.ReadErrors(), "parvane-watch: cannot write " + File() +
                                          ": File exists (--force overwrites it)\n");
        EXPECT_EQ(watch.Wait(), 1);
        EXPECT_EQ(Content(), "dear");
        mService.HangUp();
    }
    Parvane::Program watch = Start({"--force"});
    Accept();
    mService.Send(R"({"end":"service-ended"})");
    EXPECT_EQ(watch.Wait(), 0);
    EXPECT_EQ(Content().size(), kBeginning);
}

TEST_F(CaptureCommandTest, ARefusalCostsNoFileAndAServiceThatGoesIsAFailure)
{
    {
        Parvane::Program watch = Start();
        mService.AcceptRequest();
        mService.Send(R"({"version":1,"ok":false,"error":{"code":"busy","message":"too many"}})");
        EXPECT_EQ(watch.ReadErrors(), "parvane-watch: too many\n");
        EXPECT_EQ(watch.Wait(), 1);
        EXPECT_FALSE(std::filesystem::exists(File()));
        mService.HangUp();
    }
    Parvane::Program watch = Start();
    Accept();
    mService.Send(PacketEvent("phone", "12000003"));
    mService.HangUp();
    EXPECT_THAT(watch.ReadErrors(), HasSubstr("the service has gone; the capture may lack"));
    EXPECT_EQ(watch.Wait(), 1);
    EXPECT_EQ(Content().size(), kBeginning + kFirstPacket);
}

TEST_F(CaptureCommandTest, AMessageThatBreaksTheProtocolIsAFailure)
{
    for (const std::string message :
         {R"({"event":"packet"})", R"({"event":"packet","time_us":1,"link":1,"from":"phone",)"
                                   R"("size":1,"bytes":"xy"})"}) {
        Parvane::Program watch = Start({"--force"});
        Accept();
        mService.Send(message);
        EXPECT_THAT(watch.ReadErrors(), HasSubstr("the service broke the protocol"));
        EXPECT_EQ(watch.Wait(), 1);
        mService.HangUp();
    }
}

} // namespace
} // namespace ParvaneWatch
