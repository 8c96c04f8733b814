#include <array>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "ControlCommands.h"
#include "ControlMessages.h"
#include "ControlServer.h"
#include "Input.h"
#include "LogWriter.h"
#include "Require.h"
#include "TestSupport.h"

// Requests on the control socket, a line each, to the parts of a runtime whose sensors are set by
// hand and have a subscriber each.

using namespace ParvanePlatform;
using nlohmann::json;
using ParvaneFuzz::Require;

namespace {

class NoEvents : public LifecycleEvents
{
public:
    void OnLowMemory() override {}
    void OnLowBattery() override {}
    void OnQuit() override {}
};

/** The parts of a runtime that has just started. */
class Parts
{
public:
    explicit Parts(const std::string &directory)
        : mPreferences(directory, mClock),
          mKeys(directory, directory),
          mContext(Sources(), mClock),
          mPower(mClock),
          mLink(directory, mKeys, mClock),
          mCommands({mClock, mPreferences, mKeys, mContext, mPower, mLink, mEvents, mSettings})
    {
        StandardErrorLog().SetFilter({}); // it is the process's
        for (const int item : {1, 2, 7, 23}) {
            int requestId = 0;
            Require(mContext.Subscribe(item, nullptr, Release, nullptr, requestId) == 0,
                    "every item can be subscribed to");
        }
    }

    ControlAnswer Answer(std::string_view message) { return mCommands.Answer(message, 4711); }

private:
    static Settings MakeSettings()
    {
        Settings settings;
        settings.mSensors = {SourceKind::Manual, SourceKind::Manual, SourceKind::Manual,
                             SourceKind::Manual};
        return settings;
    }

    SensorSources Sources() const { return {mSettings, mClock, nullptr}; }

    static void Release(int /*error*/, int /*item*/, context_data *data, void * /*userData*/,
                        int /*requestId*/) noexcept
    {
        std::free(data);
    }

    const Settings mSettings = MakeSettings();
    ManualClock mClock;
    NoEvents mEvents;
    PreferenceStore mPreferences;
    KeyValueStore mKeys;
    ContextManager mContext;
    PowerLocks mPower;
    LinkSession mLink;
    ControlCommands mCommands;
};

/** The reply as docs/control.md has it. */
void CheckReply(const std::string &text)
{
    static const std::set<std::string> codes = {"bad-message", "unsupported-version",
                                                "unknown-request", "bad-value", "not-manual"};
    Require(text.size() <= ControlServer::kMaxReplyBytes, "a reply is not too long");
    const json reply = json::parse(text, nullptr, false);
    Require(reply.is_object() && reply.value("version", 0) == kControlVersion,
            "a reply is an object of this version");
    const auto ok = reply.find("ok");
    Require(ok != reply.end() && ok->is_boolean(), "a reply says whether it was served");
    if (ok->get<bool>()) {
        Require(!reply.contains("error"), "what was served has no error");
        return;
    }
    const auto error = reply.find("error");
    Require(error != reply.end() && codes.count(error->value("code", "")) != 0 &&
                !error->value("message", "").empty(),
            "a refusal has a code that is documented, and a reason");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const TemporaryDirectory directory;
    Parts parts(directory.Path());
    for (const std::string_view line : ParvaneFuzz::Split(ParvaneFuzz::TextOf(data, size), '\n')) {
        ControlAnswer answer = parts.Answer(line.substr(0, ControlServer::kMaxRequestBytes));
        CheckReply(answer.mReply);
        if (answer.mAfterwards) {
            answer.mAfterwards();
        }
        RunWhileBusy();
    }
    CheckReply(parts.Answer(R"({"request":"status"})").mReply);
    return 0;
}
