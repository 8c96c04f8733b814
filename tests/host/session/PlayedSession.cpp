#include "PlayedSession.h"

#include <bit>
#include <cmath>
#include <iomanip>
#include <sstream>

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

std::string Number(RequestId request)
{
    return request == 0 ? "" : " #" + std::to_string(request);
}

std::string Name(std::optional<Sensor> sensor)
{
    return sensor ? std::string(SensorName(*sensor)) : "list";
}

struct Teller
{
    std::string operator()(const Told::Linked & /*linked*/) const { return "linked"; }
    std::string operator()(const Told::Lost &lost) const { return "lost: " + lost.mWhy.mText; }
    std::string operator()(const Told::AttemptFailed &failed) const
    {
        return "attempt failed: " + failed.mWhy.mText + ", " +
               std::to_string(failed.mPause.count()) + " ms";
    }
    std::string operator()(const Told::NewReading &told) const
    {
        return Name(told.mReading.mSensor) + " " +
               std::to_string(std::lround(told.mReading.mValue)) + (told.mIsSettled ? "" : " ?") +
               Number(told.mRequest);
    }
    std::string operator()(const Told::NewList &told) const
    {
        return "list of " + std::to_string(told.mList.mEntries.size()) + Number(told.mRequest);
    }
    std::string operator()(const Told::Stopped &told) const
    {
        return "stopped " + Name(told.mSensor) + Number(told.mRequest);
    }
    std::string operator()(const Told::Failed &told) const
    {
        return "failed " + Name(told.mSensor) + Number(told.mRequest) + ": " + told.mWhy.mText;
    }
    std::string operator()(const Told::Nonsense &told) const { return "nonsense: " + told.mText; }
};

} // namespace

std::string TextOf(const Told::Event &event)
{
    return std::visit(Teller{}, event);
}

PlayedSession::PlayedSession(SessionOptions options, Instant begin)
    : mSession(options, StepLedger([](auto) { return seconds{0}; })), mBegin(begin)
{}

void PlayedSession::Until(milliseconds elapsed)
{
    while (mSession.Deadline() && *mSession.Deadline() < At(elapsed).mSteady) {
        const auto due = std::chrono::ceil<milliseconds>(*mSession.Deadline() - At({}).mSteady);
        mElapsed = std::max(mElapsed, due);
        mSession.Advance(Now());
    }
    mElapsed = elapsed;
    mSession.Advance(Now());
}

void PlayedSession::Hear(const std::vector<Bytes> &packets)
{
    for (const Bytes &packet : packets) {
        mSession.Take(packet, Now());
        mSession.Advance(Now());
    }
}

std::vector<std::string> PlayedSession::Sent()
{
    std::vector<std::string> sent;
    while (const auto packet = mSession.NextPacket()) {
        std::ostringstream text;
        for (const std::uint8_t byte : *packet) {
            text << std::hex << std::setw(2) << std::setfill('0') << unsigned{byte};
        }
        sent.push_back(text.str());
    }
    return sent;
}

std::vector<std::string> PlayedSession::Texts()
{
    std::vector<std::string> texts;
    for (const Told::Event &event : Events()) {
        texts.push_back(TextOf(event));
    }
    return texts;
}

std::vector<Told::Event> PlayedSession::Events()
{
    std::vector<Told::Event> events;
    while (auto event = mSession.NextEvent()) {
        events.push_back(*std::move(event));
    }
    return events;
}

Moment PlayedSession::At(milliseconds elapsed) const
{
    return {Session::SteadyTime{elapsed}, mBegin + elapsed};
}

Bytes ReadingPacket(std::uint8_t first, std::uint8_t sensor, float value)
{
    const auto bits = std::bit_cast<std::uint32_t>(value);
    Bytes packet{first, 0x00, 0x0E, sensor, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0F, 0x42, 0x40};
    for (unsigned shift = 32; shift > 0; shift -= 8) {
        packet.push_back(static_cast<std::uint8_t>(bits >> (shift - 8)));
    }
    packet.push_back(0x00);
    return packet;
}

Bytes ListHeader(std::uint8_t first, std::uint8_t count)
{
    return {first, 0x80, 0x0A, 0x03, 0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, count};
}

Bytes ListEntry(std::uint8_t first, std::uint8_t position, std::uint8_t sensor)
{
    return {first,  position, 0x15, static_cast<std::uint8_t>(0x40 + sensor),
            sensor, 0x01,     0x43, 0x48,
            0x00,   0x00,     0x3F, 0x80,
            0x00,   0x00,     0x00, 0x00,
            0x00,   0x00,     0x00, 0x00,
            0x3A,   0x98,     0x00, 0x00,
            0x00};
}

} // namespace ParvaneHost
