#include <filesystem>
#include <string>

#include "ServiceFixture.h"

namespace {

// Functions whose log lines print the place of the call in today's source.
constexpr const char *kMovingLines[] = {
    "InitializeTALConnection(",   "FindAgentPeer(", "TALNotiOnPeerAgent(",
    "MeasureCurrentSensorValue(", "SendToHost(",    "TALNotiOnServiceCreateConfirm("};

// The transcript with colour codes made visible, and "line" for every line number that may move.
std::string Readable(std::string text)
{
    for (const std::string name : kMovingLines) {
        for (auto at = text.find(name); at != std::string::npos; at = text.find(name, at)) {
            at += name.size();
            text.replace(at, text.find(')', at) - at, "line");
        }
    }
    for (auto at = text.find('\033'); at != std::string::npos; at = text.find('\033', at)) {
        text.replace(at, 1, "^[");
    }
    return text;
}

} // namespace

/**
 * The executable as it is built, on a provider of the platform that is not the project's own: every
 * call that it makes, every line that it logs and every byte that it sends, in order.
 */
class OtherPlatformTest : public ServiceFixture
{
protected:
    void ExpectTranscript(const Environment &more)
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
