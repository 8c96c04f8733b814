#include "Client.h"

#include <string_view>
#include <utility>
#include <variant>

#include "WireCodec.h"

namespace ParvaneHost {

namespace {

/**
 * Whether `reply` answers the measure-once `request`. The worn state is told by whichever request
 * reached the watch before its sensor spoke, so its flags may be those of the request before this one.
 */
bool AnswersMeasure(const Reply &reply, const Request &request)
{
    const auto *reading = std::get_if<Reading>(&reply);
    return reading != nullptr && reading->mCommand == Command::MeasureOnce &&
           reading->mSensor == request.mSensor &&
           (reading->mFlags == request.mFlags || request.mSensor == Sensor::WearState);
}

/** Whether `reply` answers the start `request`; steps are answered as if measured, flags included. */
bool AnswersStart(const Reply &reply, const Request &request)
{
    const auto *reading = std::get_if<Reading>(&reply);
    if (reading == nullptr || reading->mSensor != request.mSensor) {
        return false;
    }
    if (request.mSensor == Sensor::Pedometer) {
        return reading->mCommand == Command::MeasureOnce;
    }
    return reading->mCommand == Command::Start && reading->mFlags == request.mFlags;
}

bool IsTimeout(const Result<Reply, Error> &outcome)
{
    return !outcome.Ok() && std::holds_alternative<Timeout>(outcome.GetError());
}

Result<Reading, Error> AsReading(Result<Reply, Error> outcome)
{
    if (!outcome.Ok()) {
        return std::move(outcome).GetError();
    }
    return std::get<Reading>(outcome.Value());
}

} // namespace

Client::Client(ClientOptions options) : mOptions(std::move(options)), mFlags(mOptions.mFirstFlags)
{}

Client::Client(ClientOptions options, UniqueFd socket) : Client(std::move(options))
{
    mLink.emplace(std::move(socket), mOptions.mPath);
}

std::optional<Error> Client::Connect(const Deadline &bound)
{
    if (mLink) {
        return std::nullopt;
    }
    auto link = Link::Connect(
        mOptions.mPath, Deadline::After(mOptions.mConnectTimeout).Earlier(bound), mOptions.mWait);
    if (!link) {
        return std::move(link).GetError();
    }
    mLink.emplace(std::move(link).Value());
    return std::nullopt;
}

void Client::Disconnect() noexcept
{
    mLink.reset();
}

std::optional<Error> Client::Reconnect(const Deadline &bound)
{
    Disconnect();
    return Connect(bound);
}

Result<SensorList, Error> Client::ListSensors(const Deadline &deadline)
{
    const Request request = Request::SensorList(NextFlags());
    const std::string what = "the sensor list";
    const auto isHeader = [&request](const Reply &reply) {
        const auto *header = std::get_if<SensorListHeader>(&reply);
        return header != nullptr && header->mFlags == request.mFlags;
    };
    const auto isEntry = [&request](const Reply &reply) {
        const auto *entry = std::get_if<SensorEntry>(&reply);
        return entry != nullptr && entry->mFlags == request.mFlags;
    };

    auto header = Ask(request, isHeader, deadline, what);
    if (!header) {
        return std::move(header).GetError();
    }
    SensorList list{std::get<SensorListHeader>(header.Value()), {}};
    for (unsigned position = 1; position <= list.mHeader.mCount; ++position) {
        auto entry = Await(isEntry, deadline, what);
        if (!entry) {
            return std::move(entry).GetError();
        }
        list.mEntries.push_back(std::get<SensorEntry>(entry.Value()));
        if (list.mEntries.back().mPosition != position) {
            return Error{ProtocolError{"sensor entry " +
                                       std::to_string(list.mEntries.back().mPosition) +
                                       " where entry " + std::to_string(position) + " was due"}};
        }
    }
    return list;
}

Result<Reading, Error> Client::Measure(Sensor sensor, const Deadline &deadline)
{
    const Request request = Request::MeasureOnce(sensor, NextFlags());
    const auto claim = [&request](const Reply &reply) { return AnswersMeasure(reply, request); };
    if (sensor == Sensor::WearState) {
        const Deadline first = Deadline::After(mOptions.mAskAgainAfter).Earlier(deadline);
        auto answer = Ask(request, claim, first, MeasurementText(sensor));
        if (!IsTimeout(answer) || deadline.HasPassed()) {
            return AsReading(std::move(answer));
        }
    }
    return AsReading(Ask(request, claim, deadline, MeasurementText(sensor)));
}

std::optional<Error> Client::AskToMeasure(Sensor sensor, const Deadline &deadline)
{
    return SendRaw(Encode(Request::MeasureOnce(sensor, NextFlags())), deadline);
}

Result<Reading, Error> Client::Start(Sensor sensor, const Deadline &deadline, std::uint8_t format)
{
    if (sensor != Sensor::Activity && sensor != Sensor::Pedometer) {
        return Error{Unsupported{"the watch does not push '" + std::string(SensorName(sensor)) +
                                 "': only activity and steps can be started"}};
    }
    if (auto stopped = Stop(sensor, deadline); !stopped) {
        return std::move(stopped).GetError();
    }
    const Request request = Request::Start(sensor, format, NextFlags());
    const auto claim = [&request](const Reply &reply) { return AnswersStart(reply, request); };
    return AsReading(
        Ask(request, claim, deadline, "the start of '" + std::string(SensorName(sensor)) + "'"));
}

Result<StopAck, Error> Client::Stop(Sensor sensor, const Deadline &deadline)
{
    const Request request = Request::Stop(sensor, NextFlags());
    const auto claim = [&request](const Reply &reply) {
        return reply == Reply{StopAck{request.mFlags, request.mSensor}};
    };
    auto answer =
        Ask(request, claim, deadline, "the stop of '" + std::string(SensorName(sensor)) + "'");
    if (!answer) {
        return std::move(answer).GetError();
    }
    return std::get<StopAck>(answer.Value());
}

Result<Reply, Error> Client::Receive(const Deadline &deadline)
{
    if (mUnclaimed.empty()) {
        return ReadReply(deadline);
    }
    const Reply reply = mUnclaimed.front();
    mUnclaimed.pop_front();
    return reply;
}

std::deque<Reply> Client::TakeUnclaimed()
{
    return std::exchange(mUnclaimed, {});
}

std::optional<Error> Client::SendRaw(std::span<const std::uint8_t> packet, const Deadline &deadline)
{
    if (!mLink) {
        return NotConnected();
    }
    auto error = mLink->Send(packet, deadline, mOptions.mWait);
    if (!error && mOptions.mOnPacket) {
        mOptions.mOnPacket(Parvane::Sender::Phone, packet);
    }
    if (error && std::holds_alternative<LinkError>(*error)) {
        Disconnect();
    }
    return error;
}

Result<Bytes, Error> Client::ReceiveRaw(const Deadline &deadline)
{
    if (!mLink) {
        return NotConnected();
    }
    auto packet = mLink->Receive(deadline, mOptions.mWait);
    if (packet && mOptions.mOnPacket) {
        mOptions.mOnPacket(Parvane::Sender::Watch, packet.Value());
    }
    if (!packet && std::holds_alternative<LinkError>(packet.GetError())) {
        Disconnect();
    }
    return packet;
}

std::uint8_t Client::NextFlags()
{
    // 0 is left out: the watch sends it where there was no request, as after its own restart.
    constexpr std::uint8_t kLast = WireFormat::kFlagsMask;
    const std::uint8_t flags = mFlags == 0 || mFlags > kLast ? std::uint8_t{1} : mFlags;
    mFlags = static_cast<std::uint8_t>(flags == kLast ? 1 : flags + 1);
    return flags;
}

Error Client::NotConnected() const
{
    return LinkError{LinkError::Reason::NotConnected, 0, mOptions.mPath};
}

Result<Reply, Error> Client::ReadReply(const Deadline &deadline)
{
    auto packet = ReceiveRaw(deadline);
    if (!packet) {
        return std::move(packet).GetError();
    }
    auto reply = Decode(packet.Value());
    if (!reply) {
        return Error{ProtocolError{reply.GetError().Text()}};
    }
    return std::move(reply).Value();
}

Result<Reply, Error> Client::Await(const Claim &claim, const Deadline &deadline,
                                   const std::string &what)
{
    for (;;) {
        auto reply = ReadReply(deadline);
        if (IsTimeout(reply)) {
            break;
        }
        if (!reply || claim(reply.Value())) {
            return reply;
        }
        if (mUnclaimed.size() >= mOptions.mMaxUnclaimed) {
            return Error{ProtocolError{"more than " + std::to_string(mOptions.mMaxUnclaimed) +
                                       " unasked packets before the answer to " + what}};
        }
        mUnclaimed.push_back(std::move(reply).Value());
        if (deadline.HasPassed()) {
            break;
        }
    }
    return Error{Timeout{what, deadline.Length()}};
}

Result<Reply, Error> Client::Ask(const Request &request, const Claim &claim,
                                 const Deadline &deadline, const std::string &what)
{
    if (auto error = SendRaw(Encode(request), deadline)) {
        return *std::move(error);
    }
    return Await(claim, deadline, what);
}

} // namespace ParvaneHost
