#include "IioActivity.h"

#include <platform/context_manager.h>

namespace ParvanePlatform {

namespace {

constexpr char kStill[] = "in_activity_still_input";
constexpr char kWalking[] = "in_activity_walking_input";
constexpr char kJogging[] = "in_activity_jogging_input";
constexpr char kRunning[] = "in_activity_running_input";
/** Many devices tell activities by their step counter, and only while that is on. */
constexpr char kSteps[] = "in_steps_input";

constexpr int kStatusOther = 0;
constexpr int kStatusStill = 1;
constexpr int kStatusWalking = 2;
constexpr int kStatusRunning = 3;

constexpr double kLikely = 50.0;
constexpr IioChannel::Range kPercent = {0.0, 100.0};

} // namespace

IioActivity::IioActivity(const IioSettings &settings, IioSwitches &switches)
    : mDevice(settings, {"in_activity_*_input", {kStill, kWalking, kJogging, kRunning}, {kSteps}},
              switches),
      mCandidates{Candidate{IioChannel(kStill, kPercent), kStatusStill},
                  Candidate{IioChannel(kWalking, kPercent), kStatusWalking},
                  Candidate{IioChannel(kJogging, kPercent), kStatusRunning},
                  Candidate{IioChannel(kRunning, kPercent), kStatusRunning}}
{}

std::optional<SensorReading> IioActivity::Read()
{
    const IioDevice::Presence presence = mDevice.Look();
    if (presence == IioDevice::Presence::Absent) {
        return std::nullopt;
    }
    bool isComplete = true;
    std::optional<std::string> lost;
    int status = kStatusOther;
    double highest = 0.0;
    for (Candidate &candidate : mCandidates) {
        const IioChannel::Value value = candidate.mChannel.Read(mDevice.Path());
        const bool isThere = value.mState != IioChannel::State::Missing;
        const bool wasThere = presence == IioDevice::Presence::Same && candidate.mIsKnown;
        if (wasThere && !isThere) {
            lost = candidate.mChannel.File();
        }
        candidate.mIsKnown = isThere;
        if (value.mState != IioChannel::State::Good) {
            isComplete = isComplete && !isThere;
        } else if (value.mNumber >= kLikely && value.mNumber > highest) {
            highest = value.mNumber;
            status = candidate.mStatus;
        }
    }
    if (lost) {
        // A device that is just being taken away: what is left of it tells nothing.
        mDevice.Lose(*lost);
    }
    if (lost || !isComplete) {
        return std::nullopt;
    }
    SensorReading reading;
    reading.Add(CONTEXT_ACTIVITY_STATUS, status);
    return reading;
}

void IioActivity::SetPolled(bool isPolled)
{
    mDevice.SetEnabled(isPolled);
}

} // namespace ParvanePlatform
