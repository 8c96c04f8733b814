#include <filesystem>
#include <regex>

#include "ServiceFixture.h"

namespace {

// The transcript with colour codes made visible, and "line" for every number of a log line that is
// the place of the call in today's source.
std::string Readable(const std::string &transcript)
{
    static const std::regex movingLine("(InitializeTALConnection|FindAgentPeer|TALNotiOnPeerAgent|"
                                       "MeasureCurrentSensorValue|SendToHost|"
                                       "TALNotiOnServiceCreateConfirm)\\([0-9]+\\)");
    const std::string text = std::regex_replace(transcript, movingLine, "$1(line)");
    return std::regex_replace(text, std::regex("\033"), "^[");
}

} // namespace

/**
 * The executable as it is built, on a provider of the platform that is not the project's own: every
 * call that it makes, every line that it logs and every byte that it sends, in order.
 */
class OtherPlatformTest : public ServiceFixture
{
protected:
    void ExpectTranscript(Environment more)
    {
        StartService(more);
        EXPECT_EQ(mService->WaitForEnd(), 0);
        EXPECT_EQ(Readable(mService->StandardOutput()), ReadFile(OTHER_PLATFORM_EXPECTED));
        EXPECT_EQ(mService->StandardError(), "");
    }
};

TEST_F(OtherPlatformTest, TakesThePlaceOfTheLibraryByItsName)
{
    ExpectTranscript({{"LD_LIBRARY_PATH",
                       std::filesystem::path(OTHER_PLATFORM_LIBRARY).parent_path().string()}});
}

TEST_F(OtherPlatformTest, TakesThePlaceOfTheLibraryWhenItIsLoadedBefore)
{
    // A sanitizer would rather be the first library itself.
    const std::string options = BaseEnvironment()["ASAN_OPTIONS"];
    ExpectTranscript({{"LD_PRELOAD", OTHER_PLATFORM_LIBRARY},
                      {"ASAN_OPTIONS", options + ":verify_asan_link_order=0"}});
}
