#include "Session.h"

#include <algorithm>
#include <bit>
#include <set>

#include "Input.h"
#include "Require.h"

// What an app and a link may do to a session of the phone: requests with any sensor and time-out, links
// that come and go, packets of any bytes, time that passes or jumps.

using namespace ParvaneHost;
using ParvaneFuzz::Require;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

class Player
{
public:
    explicit Player(SessionOptions options)
        : mSession(options, StepLedger([](auto) { return seconds{3600}; }))
    {}

    void Play(ParvaneFuzz::Input &input)
    {
        while (!input.IsAtEnd()) {
            Step(input);
            Look();
        }
        // Whatever happened: with no link, and much later, every request is over.
        for (int again = 0; again < 3; ++again) {
            mSession.Lost("the end", mNow);
            Pass(std::chrono::hours{100});
            mSession.Advance(mNow);
            Look();
        }
        Require(mOpen.empty(), "every request ends");
    }

private:
    void Step(ParvaneFuzz::Input &input)
    {
        const std::uint8_t what = input.Byte();
        switch (what % 11) {
        case 0:
            mSession.Connected(mNow, what < 128 ? "" : "17:4711");
            mHasLink = true;
            break;
        case 1:
            mSession.Lost("gone", mNow);
            break;
        case 2:
            mSession.Take(input.Bytes(), mNow);
            break;
        case 3:
            Answer(input);
            break;
        case 4:
            Pass(milliseconds{input.Number(2)});
            mSession.Advance(mNow);
            break;
        case 5:
            Pass(milliseconds{input.Number(4)}); // and nobody looks
            break;
        case 6:
            Open(mSession.Measure(Sensor{input.Byte()}, mNow, Timeout(input)));
            break;
        case 7:
            Open(mSession.List(mNow, Timeout(input)));
            break;
        case 8:
            Open(mSession.Stop(Sensor{input.Byte()}, mNow, Timeout(input)));
            break;
        case 9:
            mSession.Follow(Sensor{input.Byte()}, mNow, milliseconds{input.Number(2)});
            break;
        default:
            if (const auto due = mSession.Deadline()) {
                Pass(std::max(std::chrono::ceil<milliseconds>(*due - mNow.mSteady),
                              milliseconds{0}));
            }
            mSession.Advance(mNow);
            break;
        }
    }

    /** What a watch would say to the request that was sent last, with any number and time. */
    void Answer(ParvaneFuzz::Input &input)
    {
        if (mSent.size() < 4) {
            return;
        }
        const std::uint8_t first = mSent[0];
        if (first % 16 == 1) {
            const auto listed = static_cast<std::uint8_t>(first + 0x80);
            mSession.Take(Bytes{listed, 0x80, 0x0A, 3, 0, 0, 1, 2, 3, 4, 5, 6, 0}, mNow);
        } else if (first % 16 == 4) {
            mSession.Take(Bytes{first, 2, 0, mSent[3]}, mNow);
        } else {
            Bytes reading{first, 0, 0x0E, mSent[3], 0x11, 0, 0, 0, 0};
            for (int count = 0; count < 4; ++count) {
                reading.push_back(input.Byte());
            }
            const auto bits = std::bit_cast<std::uint32_t>(static_cast<float>(input.Number(2)));
            for (const unsigned shift : {24U, 16U, 8U, 0U}) {
                reading.push_back(static_cast<std::uint8_t>(bits >> shift));
            }
            reading.push_back(0);
            mSession.Take(reading, mNow);
        }
    }

    static std::optional<milliseconds> Timeout(ParvaneFuzz::Input &input)
    {
        const std::uint64_t timeout = input.Number(2);
        return timeout == 0 ? std::nullopt : std::optional(milliseconds{timeout - 1});
    }

    void Pass(milliseconds length)
    {
        mNow.mSteady += length;
        mNow.mWall += length;
    }

    void Open(RequestId request)
    {
        Require(request != 0, "a request has a number");
        Require(mEnded.count(request) == 0, "a number is not used twice");
        mOpen.insert(request);
    }

    void Look()
    {
        mSession.Advance(mNow);
        const auto due = mSession.Deadline();
        Require(!due || *due > mNow.mSteady, "what is due was done");
        mHasLink = mHasLink && mSession.WantsLink();
        while (auto packet = mSession.NextPacket()) {
            Require(mHasLink, "without a link nothing is sent");
            Require(packet->size() == 4 || packet->size() == 5, "a request has its size");
            mSent = *std::move(packet);
        }
        while (const auto event = mSession.NextEvent()) {
            std::visit([this](const auto &told) { this->See(told); }, *event);
        }
        Require(mIsLinked == mSession.IsLinked(), "what was told of the link is so");
        for (const auto &[date, day] : mSession.Steps().Days()) {
            Require(day.mSteps >= 0, "steps are not negative");
        }
    }

    void End(RequestId request)
    {
        if (request != 0) {
            Require(mOpen.erase(request) == 1, "a request ends once");
            mEnded.insert(request);
        }
    }

    void See(const Told::Linked & /*told*/)
    {
        Require(!mIsLinked, "a link comes once");
        mIsLinked = true;
    }
    void See(const Told::Lost &told)
    {
        Require(mIsLinked && !told.mWhy.mText.empty(), "a link goes once, and it is told why");
        mIsLinked = false;
    }
    void See(const Told::AttemptFailed &told)
    {
        Require(!mIsLinked && told.mPause <= seconds{5}, "what fails is tried again");
    }
    void See(const Told::NewReading &told)
    {
        Require(told.mObservation.Age(mNow.mWall) >= milliseconds{0}, "an age is not negative");
        End(told.mRequest);
    }
    void See(const Told::NewList &told) { End(told.mRequest); }
    void See(const Told::Stopped &told) { End(told.mRequest); }
    void See(const Told::Failed &told)
    {
        Require(!told.mWhy.mText.empty(), "it is told why");
        End(told.mRequest);
    }
    static void See(const Told::Nonsense &told) { Require(!told.mText.empty(), "it is told what"); }

    Session mSession;
    Moment mNow{Session::SteadyTime{}, Instant{seconds{1773489600}}};
    std::set<RequestId> mOpen;
    std::set<RequestId> mEnded;
    Bytes mSent;
    bool mHasLink = false;
    bool mIsLinked = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    ParvaneFuzz::Input input(data, size);
    const std::uint8_t choices = input.Byte();
    SessionOptions options;
    options.mProvesLink = choices % 2 == 0;
    options.mAsksWorn = choices / 2 % 2 == 0;
    options.mCountsSteps = choices / 4 % 2 == 0;
    Player(options).Play(input);
    return 0;
}
