#include "Questions.h"

#include <algorithm>

#include "Earlier.h"
#include "WireCodec.h"

namespace ParvaneHost {

using std::chrono::milliseconds;

Questions::Iterator Questions::Find(Command command, Sensor sensor)
{
    return std::find_if(mAll.begin(), mAll.end(),
                        [=](const Question &question) { return question.IsFor(command, sensor); });
}

bool Questions::IsAnythingAskedOf(Sensor sensor) const
{
    return std::any_of(mAll.begin(), mAll.end(), [sensor](const Question &question) {
        return question.mRequest.mSensor == sensor;
    });
}

std::pair<Questions::Iterator, bool> Questions::Ask(const Request &request, bool isOurs,
                                                    SteadyTime now, milliseconds within)
{
    const SteadyTime giveUpAt = now + within;
    const auto asked = Find(request.mCommand, request.mSensor);
    if (asked == mAll.end()) {
        const Question question{++mLastId, isOurs, request, within, giveUpAt, {}, {}, {}};
        return {mAll.insert(mAll.end(), question), true};
    }
    asked->mIsOurs = asked->mIsOurs && isOurs;
    if (giveUpAt > asked->mGiveUpAt) {
        asked->mGiveUpAt = giveUpAt;
        asked->mTimeout = within;
    }
    return {asked, false};
}

Question Questions::Take(Iterator question)
{
    Question taken = std::move(*question);
    mAll.erase(question);
    return taken;
}

std::list<Question> Questions::TakeSent()
{
    mPackets.clear();
    std::list<Question> sent;
    for (auto question = mAll.begin(); question != mAll.end();) {
        const auto next = std::next(question);
        if (question->mSentAt) {
            sent.splice(sent.end(), mAll, question);
        }
        question = next;
    }
    return sent;
}

void Questions::ForgetOurs(Sensor sensor)
{
    mAll.remove_if([sensor](const Question &question) {
        return question.mIsOurs && question.mRequest.mSensor == sensor &&
               question.mRequest.mCommand != Command::Stop;
    });
}

void Questions::Send(Question &question, SteadyTime now)
{
    if (!question.mSentAt) {
        question.mSentAt = now;
        question.mRequest.mFlags = NextFlags();
    }
    mPackets.push_back(Encode(question.mRequest));
}

std::optional<Bytes> Questions::NextPacket()
{
    if (mPackets.empty()) {
        return std::nullopt;
    }
    Bytes packet = std::move(mPackets.front());
    mPackets.pop_front();
    return packet;
}

std::optional<Questions::SteadyTime> Questions::Deadline() const
{
    std::optional<SteadyTime> deadline;
    for (const Question &question : mAll) {
        deadline = Earlier(Earlier(deadline, question.mGiveUpAt), question.mAskAgainAt);
    }
    return deadline;
}

std::uint8_t Questions::NextFlags()
{
    // 0 is left out: the watch sends it where there was no request, as after its own restart.
    constexpr std::uint8_t kLast = WireFormat::kFlagsMask;
    const std::uint8_t flags = mFlags == 0 || mFlags > kLast ? std::uint8_t{1} : mFlags;
    mFlags = static_cast<std::uint8_t>(flags == kLast ? 1 : flags + 1);
    return flags;
}

} // namespace ParvaneHost
