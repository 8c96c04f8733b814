#include "IioSource.h"

#include <algorithm>
#include <utility>
#include <variant>

#include "ErrorCode.h"
#include "IioActivity.h"
#include "IioPedometer.h"

namespace ParvanePlatform {

namespace {

constexpr std::int64_t kUsPerMs = 1000;

/** What a reading is about: a reader puts it first. */
int MainValueOf(const SensorReading &reading)
{
    return std::get<int>(reading.begin()->mValue);
}

} // namespace

IioSource::IioSource(const IioSettings &settings, const Clock &clock, std::unique_ptr<Timer> timer)
    : mClock(clock),
      mTimer(std::move(timer)),
      mPeriodUs(std::max(settings.mPeriodMs, 1) * kUsPerMs),
      mTracks{Track{ContextItem::Pedometer, std::make_unique<IioPedometer>(settings, mSwitches)},
              Track{ContextItem::Activity, std::make_unique<IioActivity>(settings, mSwitches)}}
{}

int IioSource::Start(ContextItem item)
{
    Track *track = TrackOf(item);
    if (track == nullptr) {
        return ErrorCode::kNotSupported;
    }
    if (!IsAnyStarted()) {
        mNextUs = mClock.MonotonicUs() + mPeriodUs;
    }
    track->mIsStarted = true;
    track->mIsBeginning = true;
    track->mIsDue = false;
    track->mReported.reset();
    SetTimer();
    return 0;
}

void IioSource::Stop(ContextItem item)
{
    Track *track = TrackOf(item);
    if (track == nullptr || !track->mIsStarted) {
        return;
    }
    track->mIsStarted = false;
    track->mIsBeginning = false;
    track->mReported.reset();
    track->mReader->SetPolled(false);
    SetTimer();
}

std::optional<SensorReading> IioSource::Latest(ContextItem item) const
{
    const Track *track = TrackOf(item);
    if (track == nullptr) {
        return std::nullopt;
    }
    const bool isPolled = track->mIsStarted && !track->mIsBeginning;
    return isPolled ? track->mNewest : track->mReader->Read();
}

IioSource::Track *IioSource::TrackOf(ContextItem item)
{
    return const_cast<Track *>(std::as_const(*this).TrackOf(item));
}

const IioSource::Track *IioSource::TrackOf(ContextItem item) const
{
    for (const Track &track : mTracks) {
        if (track.mItem == item) {
            return &track;
        }
    }
    return nullptr;
}

bool IioSource::IsAnyStarted() const
{
    return std::any_of(mTracks.begin(), mTracks.end(),
                       [](const Track &track) { return track.mIsStarted; });
}

void IioSource::Poll()
{
    const std::int64_t nowUs = mClock.MonotonicUs();
    const bool isForAll = nowUs >= mNextUs;
    if (isForAll) {
        mNextUs += ((nowUs - mNextUs) / mPeriodUs + 1) * mPeriodUs;
    }
    for (Track &track : mTracks) {
        track.mIsDue = track.mIsStarted && (isForAll || track.mIsBeginning);
    }
    // Before the readings: the polling goes on even if a listener fails.
    SetTimer();
    for (Track &track : mTracks) {
        // A listener of another item may have stopped this one since, or started it anew.
        if (track.mIsStarted && std::exchange(track.mIsDue, false)) {
            Poll(track);
        }
    }
}

void IioSource::Poll(Track &track)
{
    track.mIsBeginning = false;
    track.mReader->SetPolled(true);
    track.mNewest = track.mReader->Read();
    if (!track.mNewest || track.mReported == MainValueOf(*track.mNewest)) {
        return;
    }
    track.mReported = MainValueOf(*track.mNewest);
    if (mListener != nullptr) {
        mListener->OnReading(track.mItem, *track.mNewest);
    }
}

void IioSource::SetTimer()
{
    if (!IsAnyStarted()) {
        mTimer->Disarm();
        return;
    }
    const bool isBeginning = std::any_of(mTracks.begin(), mTracks.end(), [](const Track &track) {
        return track.mIsBeginning && !track.mIsDue;
    });
    mTimer->Arm(isBeginning ? mClock.MonotonicUs() : mNextUs, [this] { Poll(); });
}

} // namespace ParvanePlatform
