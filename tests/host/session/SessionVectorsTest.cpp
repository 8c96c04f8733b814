#include <algorithm>
#include <map>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PlayedSession.h"
#include "Vectors.h"

// The exchanges of docs/vectors with a session as the phone: it asks what the phone asks there, with
// flags of its own, and hears what the watch says.

using namespace ParvaneHost;
using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

SessionOptions Trusting()
{
    SessionOptions options;
    options.mProvesLink = false;
    options.mAsksWorn = false;
    return options;
}

class Exchange
{
public:
    explicit Exchange(const json &exchange)
        : mEvents(exchange.at("events")),
          mPlayed(Trusting(), Instant(seconds(exchange.at("begins").get<std::int64_t>())))
    {}

    void Play()
    {
        for (std::size_t index = 0; index < mEvents.size(); ++index) {
            const json &event = mEvents.at(index);
            SCOPED_TRACE(event.dump());
            mPlayed.Until(milliseconds(event.at("at_ms").get<std::int64_t>()));
            if (event.contains("link")) {
                Link(event.at("link") == "up");
            } else if (event.value("from", "") == "phone" && event.at("packet").is_object()) {
                Ask(index, event.at("packet"));
            } else if (event.value("from", "") == "watch") {
                Hear(event);
            }
            See(event);
        }
    }

    int mAnswers = 0;
    int mWalked = 0;

private:
    void Link(bool isUp)
    {
        if (isUp) {
            mPlayed.mSession.Connected(mPlayed.Now());
        } else {
            mPlayed.mSession.Lost("lost", mPlayed.Now());
        }
        mIsFirstTotal = true;
    }

    void Ask(std::size_t index, const json &packet)
    {
        const std::string kind = packet.at("kind");
        const Sensor sensor{packet.value("sensor", std::uint8_t{0})};
        if (SensorName(sensor) == "unknown" && kind != "list") {
            return; // a session asks for no such sensor
        }
        if (kind == "list") {
            mRequests[index] = mPlayed.mSession.List(mPlayed.Now());
        } else if (kind == "measure") {
            mRequests[index] = mPlayed.mSession.Measure(sensor, mPlayed.Now());
        } else if (kind == "stop" && IsStartedAfter(index)) {
            mPlayed.mSession.Follow(sensor, mPlayed.Now());
        } else if (kind == "stop") {
            mRequests[index] = mPlayed.mSession.Stop(sensor, mPlayed.Now());
        } // a start is what has followed the acknowledgement, if a stop went first
    }

    [[nodiscard]] bool IsStartedAfter(std::size_t index) const
    {
        return index + 2 < mEvents.size() && mEvents.at(index + 2).value("from", "") == "phone" &&
               mEvents.at(index + 2).at("packet").at("kind") == "start";
    }

    void Hear(const json &event)
    {
        const json &packet = event.at("packet");
        Bytes bytes = Parvane::Vectors::FromHex(event.at("bytes"));
        const std::pair asked(bytes.at(0) % 16, packet.value("sensor", 0));
        const auto flags = mFlags.find(packet.at("kind") == "entry" ? std::pair(1, 0) : asked);
        if (flags != mFlags.end()) {
            bytes.at(0) = static_cast<std::uint8_t>((bytes.at(0) & 0xCFU) | flags->second << 4);
        }
        const bool isTotal = packet.at("kind") == "reading" && packet.at("sensor") == 2;
        if (isTotal && !event.contains("count") && !mIsFirstTotal) {
            mPlayed.Hear({{}}); // what does not tell its count follows something that was missed
        }
        mIsFirstTotal = mIsFirstTotal && !isTotal;
        mPlayed.Hear({bytes});
        if (event.contains("walked")) {
            std::int64_t steps = 0;
            for (const auto &[date, day] : mPlayed.mSession.Steps().Days()) {
                steps += day.mSteps;
            }
            EXPECT_EQ(steps, event.at("walked"));
            ++mWalked;
        }
    }

    /** Each request ends once, with its last reply in the exchange, unless the link was lost. */
    void See(const json &event)
    {
        for (const Told::Event &told : mPlayed.Events()) {
            const RequestId ended = std::visit([](const auto &what) { return Ended(what); }, told);
            EXPECT_TRUE(ended == 0 || mEnded.insert(ended).second) << TextOf(told);
            const auto *reading = std::get_if<Told::NewReading>(&told);
            const bool isTotal = reading && reading->mReading.mSensor == Sensor::Pedometer;
            EXPECT_TRUE(ended == 0 || isTotal || event.contains("answers") ||
                        std::holds_alternative<Told::Failed>(told))
                << TextOf(told);
        }
        while (const auto sent = mPlayed.mSession.NextPacket()) {
            const int command = sent->at(0) % 16;
            mFlags[{command, command == 1 ? 0 : sent->at(3)}] = sent->at(0) / 16U;
        }
        const bool isLast = std::count_if(mEvents.begin(), mEvents.end(), [&event](const json &e) {
                                return e.value("answers", -1) == event.value("answers", -1) &&
                                       e.at("at_ms") >= event.at("at_ms");
                            }) == 1;
        const auto request = mRequests.find(event.value("answers", mEvents.size()));
        if (request != mRequests.end() && isLast && event.at("packet").value("sensor", 0) != 2) {
            EXPECT_TRUE(mEnded.count(request->second)) << request->second;
            ++mAnswers;
        }
    }

    template <typename T>
    static RequestId Ended(const T &told)
    {
        if constexpr (requires { told.mRequest; }) {
            return told.mRequest;
        }
        return 0;
    }

    const json &mEvents;
    PlayedSession mPlayed;
    std::map<std::size_t, RequestId> mRequests;     // by the event of the exchange
    std::map<std::pair<int, int>, unsigned> mFlags; // last sent, by command and sensor
    std::set<RequestId> mEnded;
    bool mIsFirstTotal = true;
};

} // namespace

TEST(SessionVectorsTest, EachExchangeIsWhatItSays)
{
    int answers = 0;
    int walked = 0;
    const json exchanges = Parvane::Vectors::Read("exchanges.json");
    for (const json &exchange : exchanges.at("exchanges")) {
        SCOPED_TRACE(exchange.at("name"));
        Exchange played(exchange);
        played.Play();
        answers += played.mAnswers;
        walked += played.mWalked;
    }
    EXPECT_GT(answers, 15);
    EXPECT_GT(walked, 15);
}

TEST(SessionVectorsTest, MalformedPacketsAreToldAsSuchAndEndNothing)
{
    PlayedSession played;
    played.mSession.Connected(played.Now());
    played.Sent();
    const json malformed = Parvane::Vectors::Read("malformed.json");
    for (const json &vector : malformed.at("vectors")) {
        played.Hear({Parvane::Vectors::FromHex(vector.at("bytes"))});
        const auto texts = played.Texts();
        ASSERT_EQ(texts.size(), 1U) << vector.at("name");
        EXPECT_THAT(
            texts.front(),
            testing::StartsWith("nonsense: " + vector.at("error").at("field").get<std::string>()))
            << vector.at("name");
    }
    EXPECT_THAT(played.Sent(), testing::IsEmpty());
}

TEST(SessionVectorsTest, EveryReplyIsTakenWithoutARequest)
{
    PlayedSession played(Trusting());
    played.mSession.Connected(played.Now());
    played.Texts();
    for (const json &vector : Parvane::Vectors::SentBy("watch")) {
        played.Hear({Parvane::Vectors::FromHex(vector.at("bytes"))});
        const bool isReading = vector.at("packet").at("kind") == "reading";
        EXPECT_EQ(played.Events().size(), isReading ? 1U : 0U) << vector.at("name");
    }
}
