#include "ReplaySource.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "ErrorCode.h"

namespace ParvanePlatform {

namespace {

constexpr double kUsPerMs = 1000.0;
// How long rows are delivered in one turn of the main loop: a host that asks waits no longer.
constexpr std::int64_t kTurnUs = 5000;

std::int64_t SizeOf(const std::vector<std::uint32_t> &rows)
{
    return static_cast<std::int64_t>(rows.size());
}

} // namespace

ReplaySource::ReplaySource(Recording recording, const ReplayOptions &options, const Clock &clock,
                           std::unique_ptr<Timer> timer)
    : mOptions(options),
      mClock(clock),
      mTimer(std::move(timer)),
      mTracks{Track{ContextItem::HeartRate, {}}, Track{ContextItem::Pedometer, {}},
              Track{ContextItem::Activity, {}}, Track{ContextItem::Gesture, {}}}
{
    Open(std::move(recording));
}

void ReplaySource::Open(Recording recording)
{
    mRecording = std::move(recording);
    for (Track &track : mTracks) {
        track.mRows.clear();
        const unsigned columns = ColumnsOf(track.mItem);
        for (std::size_t i = 0; i < mRecording.mRows.size(); ++i) {
            if ((mRecording.mRows[i].mColumns & columns) != 0) {
                track.mRows.push_back(static_cast<std::uint32_t>(i));
            }
        }
        track.mRows.shrink_to_fit();
    }
    Seek(0);
}

void ReplaySource::Seek(double ms)
{
    GoOnFromMs(ms);
    for (Track &track : mTracks) {
        track.mNext = CountBefore(track, mStartUs);
    }
    SetTimer();
}

void ReplaySource::SetSpeed(double speed)
{
    GoOnFromMs(PlayedMs(NowUs()));
    mOptions.mSpeed = speed;
    SetTimer();
}

void ReplaySource::SetPaused(bool isPaused)
{
    GoOnFromMs(PlayedMs(NowUs()));
    mIsPaused = isPaused;
    SetTimer();
}

std::int64_t ReplaySource::PositionMs() const
{
    const auto ms = static_cast<std::int64_t>(PlayedMs(NowUs()));
    return mOptions.mLoop ? ms % LengthMs() : std::min(ms, LengthMs());
}

double ReplaySource::PlayedMs(std::int64_t us) const
{
    return mStartMs + static_cast<double>(us - mStartUs) * mOptions.mSpeed / kUsPerMs;
}

void ReplaySource::GoOnFromMs(double ms)
{
    // Exact to a microsecond, so that what has been due stays due.
    mStartMs = std::round(ms * kUsPerMs) / kUsPerMs;
    mStartUs = mClock.MonotonicUs();
}

int ReplaySource::Start(ContextItem item)
{
    Track &track = TrackOf(item);
    if (track.mRows.empty()) {
        return ErrorCode::kNotSupported;
    }
    track.mIsStarted = true;
    // An item that is started during a delivery begins after the rows of that delivery.
    track.mNext = CountBefore(track, mDeliveryUs ? *mDeliveryUs + 1 : NowUs());
    SetTimer();
    return 0;
}

void ReplaySource::Stop(ContextItem item)
{
    TrackOf(item).mIsStarted = false;
    SetTimer();
}

std::optional<SensorReading> ReplaySource::Latest(ContextItem item) const
{
    const Track &track = TrackOf(item);
    std::int64_t count = CountBefore(track, NowUs() + 1);
    if (track.mIsStarted) {
        // Rows that are due and not delivered yet do not count: counters would seem to go back.
        count = std::min(count, std::max<std::int64_t>(track.mNext, 1));
    }
    if (count == 0) {
        return std::nullopt;
    }
    return ReadingOf(track, count - 1);
}

ReplaySource::Track &ReplaySource::TrackOf(ContextItem item)
{
    return const_cast<Track &>(std::as_const(*this).TrackOf(item));
}

const ReplaySource::Track &ReplaySource::TrackOf(ContextItem item) const
{
    return *std::find_if(mTracks.begin(), mTracks.end(),
                         [item](const Track &track) { return track.mItem == item; });
}

std::int64_t ReplaySource::DueUs(const Track &track, std::int64_t entry) const
{
    const std::int64_t size = SizeOf(track.mRows);
    const std::uint32_t row = track.mRows[static_cast<std::size_t>(entry % size)];
    const std::int64_t round = entry / size;
    const auto recordedMs =
        static_cast<double>(round * mRecording.mLoopMs + mRecording.mRows[row].mTimeMs);
    const double playedUs = std::ceil((recordedMs - mStartMs) * kUsPerMs / mOptions.mSpeed);
    constexpr std::int64_t kFarAway = std::numeric_limits<std::int64_t>::max() / 4;
    return mStartUs + (playedUs < static_cast<double>(kFarAway)
                           ? static_cast<std::int64_t>(playedUs)
                           : kFarAway);
}

std::int64_t ReplaySource::CountBefore(const Track &track, std::int64_t us) const
{
    if (track.mRows.empty()) {
        return 0;
    }
    if (!mOptions.mLoop) {
        return CountInRoundBefore(track, 0, us);
    }
    const auto estimate = static_cast<std::int64_t>(PlayedMs(us)) / mRecording.mLoopMs;
    // From the round before on: the estimate may be off by the error of the division.
    std::int64_t round = std::max<std::int64_t>(estimate - 1, 0);
    std::int64_t inRound = CountInRoundBefore(track, round, us);
    while (inRound == SizeOf(track.mRows)) {
        ++round;
        inRound = CountInRoundBefore(track, round, us);
    }
    return round * SizeOf(track.mRows) + inRound;
}

std::int64_t ReplaySource::CountInRoundBefore(const Track &track, std::int64_t round,
                                              std::int64_t us) const
{
    const std::int64_t first = round * SizeOf(track.mRows);
    std::int64_t low = 0;
    std::int64_t high = SizeOf(track.mRows);
    while (low < high) {
        const std::int64_t middle = low + (high - low) / 2;
        if (DueUs(track, first + middle) < us) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

bool ReplaySource::HasNext(const Track &track) const
{
    return track.mIsStarted && !track.mRows.empty() &&
           (mOptions.mLoop || track.mNext < SizeOf(track.mRows));
}

ReplaySource::Track *ReplaySource::FirstTrack()
{
    // By rows rather than by times: of rows of the same time the first comes first.
    const auto position = [](const Track &track) {
        const std::int64_t size = SizeOf(track.mRows);
        return std::pair(track.mNext / size,
                         track.mRows[static_cast<std::size_t>(track.mNext % size)]);
    };
    Track *first = nullptr;
    for (Track &track : mTracks) {
        if (HasNext(track) && (first == nullptr || position(track) < position(*first))) {
            first = &track;
        }
    }
    return first;
}

void ReplaySource::SkipWholeRounds(std::int64_t nowUs)
{
    for (Track &track : mTracks) {
        if (!HasNext(track)) {
            continue;
        }
        const std::int64_t size = SizeOf(track.mRows);
        const std::int64_t behind = CountBefore(track, nowUs + 1) - track.mNext;
        if (behind > size) {
            track.mNext += (behind - 1) / size * size;
        }
    }
}

void ReplaySource::DeliverDue()
{
    const std::int64_t nowUs = mClock.MonotonicUs();
    SkipWholeRounds(nowUs);
    mDeliveryUs = nowUs;
    try {
        DeliverUntil(nowUs);
    } catch (...) {
        // The listener has failed; the rows after this one come all the same.
        EndDelivery();
        throw;
    }
    EndDelivery();
}

void ReplaySource::DeliverUntil(std::int64_t nowUs)
{
    for (Track *track = FirstTrack(); track != nullptr && DueUs(*track, track->mNext) <= nowUs;
         track = FirstTrack()) {
        const SensorReading reading = ReadingOf(*track, track->mNext);
        ++track->mNext;
        if (mListener != nullptr) {
            mListener->OnReading(track->mItem, reading);
        }
        if (mClock.MonotonicUs() - nowUs >= kTurnUs) {
            return; // the timer is due at once for what is left
        }
    }
}

void ReplaySource::EndDelivery()
{
    mDeliveryUs.reset();
    SetTimer();
}

void ReplaySource::SetTimer()
{
    if (mDeliveryUs) {
        return;
    }
    if (const Track *first = FirstTrack(); first != nullptr && !mIsPaused) {
        mTimer->Arm(DueUs(*first, first->mNext), [this] { DeliverDue(); });
    } else {
        mTimer->Disarm();
    }
}

SensorReading ReplaySource::ReadingOf(const Track &track, std::int64_t entry) const
{
    const std::int64_t size = SizeOf(track.mRows);
    const RecordingRow &row = mRecording.mRows[track.mRows[static_cast<std::size_t>(entry % size)]];
    if (track.mItem == ContextItem::Pedometer) {
        return PedometerReading(row, entry / size);
    }
    SensorReading reading;
    for (std::size_t column = 0; column < kRecordingColumns; ++column) {
        const RecordingColumnInfo &info = InfoOf(column);
        if (info.mItem != track.mItem || !row.Has(column)) {
            continue;
        }
        if (info.mRule.mIsWhole) {
            reading.Add(info.mKey, static_cast<int>(row.Value(column)));
        } else {
            reading.Add(info.mKey, row.Value(column));
        }
    }
    return reading;
}

RecordingRow ReplaySource::EndOfRounds(std::int64_t rounds) const
{
    RecordingRow end = mRecording.mRows.back();
    // A recording in which the counters begin anew ends each round with the same counts.
    if (!end.mIsRestarted) {
        for (std::size_t field = 0; field < kPedometerCounters; ++field) {
            double &count = end.Pedometer(field);
            const double counted = count - mRecording.mFirst[field].value_or(0.0);
            count = std::min(count + static_cast<double>(rounds - 1) * counted,
                             InfoOf(kFirstPedometerColumn + field).mRule.mMax);
        }
    }
    return end;
}

SensorReading ReplaySource::PedometerReading(RecordingRow row, std::int64_t round) const
{
    if (round > 0) {
        GoOnFrom(EndOfRounds(round), mRecording.mFirst, row);
        if (const RecordingRow end = EndOfRounds(round + 1); !end.mIsRestarted) {
            // The sums are rounded: none may be more than what the next round begins with.
            for (std::size_t field = 0; field < kPedometerCounters; ++field) {
                row.Pedometer(field) = std::min(row.Pedometer(field), end.Pedometer(field));
            }
        }
    }
    SensorReading reading;
    for (std::size_t field = 0; field < kPedometerFields; ++field) {
        if ((row.mKnownPedometer & (1U << field)) != 0) {
            reading.Add(InfoOf(kFirstPedometerColumn + field).mKey, row.Pedometer(field));
        }
    }
    return reading;
}

} // namespace ParvanePlatform
