#include "RecordingWriter.h"

#include <bit>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "ContextBlock.h"
#include "RecordingReader.h"
#include "ReplaySource.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;

constexpr ContextItem kAllItems[] = {ContextItem::Gesture, ContextItem::Pedometer,
                                     ContextItem::HeartRate, ContextItem::Activity};

using Value = std::pair<const char *, std::variant<int, double>>;

SensorReading MakeReading(const std::vector<Value> &values)
{
    SensorReading reading;
    for (const auto &[key, value] : values) {
        reading.Add(key, value);
    }
    return reading;
}

/** What whoever receives a reading can read from it, key by key, as an int and as a double. */
std::string AsRead(const SensorReading &reading)
{
    const std::unique_ptr<context_data, decltype(&std::free)> data(MakeContextData(0, reading),
                                                                   &std::free);
    std::ostringstream text;
    text << std::hexfloat;
    for (std::size_t column = 0; column < kRecordingColumns; ++column) {
        const char *key = InfoOf(column).mKey;
        if (key == nullptr) {
            continue;
        }
        int whole = 0;
        double decimal = 0.0;
        const int wholeResult = context_context_data_get_int(data.get(), key, &whole);
        const int decimalResult = context_context_data_get_double(data.get(), key, &decimal);
        if (wholeResult != -2 || decimalResult != -2) {
            text << key << ' ' << wholeResult << ' ' << whole << ' ' << decimalResult << ' '
                 << decimal + 0.0 << '\n'; // -0.0 and 0.0 are the same number
        }
    }
    return text.str();
}

/** One reading: when it came, of what item, and what it said. */
using Told = std::tuple<std::int64_t, ContextItem, std::string>;

/** Plays a recording once, at its own speed, to a listener of all its items. */
class Player : private SensorListener
{
public:
    std::vector<Told> Play(Recording recording)
    {
        auto owned = std::make_unique<ManualTimer>();
        const ManualTimer &timer = *owned;
        ManualTimer *fired = owned.get();
        ReplaySource source(std::move(recording), {1.0, false}, mClock, std::move(owned));
        source.SetListener(this);
        for (const ContextItem item : kAllItems) {
            source.Start(item);
        }
        while (timer.mDueUs) {
            mClock.mMonotonicUs = *timer.mDueUs;
            fired->Fire();
        }
        return std::move(mTold);
    }

    /** Writes the readings down while the recording is played. */
    std::string Record(Recording recording)
    {
        mText = RecordingWriter::Header(mClock.mWallMs);
        mIsRecording = true;
        Play(std::move(recording));
        return mText;
    }

private:
    void OnReading(ContextItem item, const SensorReading &reading) override
    {
        const std::int64_t timeMs = mClock.mMonotonicUs / 1000;
        mTold.emplace_back(timeMs, item, AsRead(reading));
        if (mIsRecording) {
            const RecordingWriter::Row row = mWriter.MakeRow(timeMs, item, reading);
            EXPECT_EQ(row.mError, "");
            mText += row.mText;
        }
    }

    ManualClock mClock;
    std::vector<Told> mTold;
    RecordingWriter mWriter;
    std::string mText;
    bool mIsRecording = false;
};

/** Readings as sensors make them, and as they should not. */
class ReadingMaker
{
public:
    explicit ReadingMaker(std::uint64_t seed) : mRandom(seed) {}

    std::size_t Below(std::size_t end)
    {
        return std::uniform_int_distribution<std::size_t>(0, end - 1)(mRandom);
    }

    ContextItem MakeItem() { return kAllItems[Below(std::size(kAllItems))]; }

    SensorReading MakeValid(ContextItem item)
    {
        std::vector<std::size_t> columns = ColumnsOf(item);
        std::shuffle(columns.begin(), columns.end(), mRandom);
        // Most pedometers tell the same values each time.
        const bool isWhole = Below(4) != 0;
        columns.resize(isWhole ? columns.size() : 1 + Below(columns.size()));
        SensorReading reading;
        for (const std::size_t column : columns) {
            reading.Add(InfoOf(column).mKey, MakeValue(column));
        }
        return reading;
    }

    /** The same with one value that its column does not allow. */
    SensorReading MakeInvalid(ContextItem item)
    {
        const std::vector<std::size_t> columns = ColumnsOf(item);
        const double bad[] = {std::nan(""), std::numeric_limits<double>::infinity(), -1e300,
                              4294967296.0, 1e18};
        SensorReading reading;
        reading.Add(InfoOf(columns[Below(columns.size())]).mKey, bad[Below(std::size(bad))]);
        return reading;
    }

private:
    static std::vector<std::size_t> ColumnsOf(ContextItem item)
    {
        std::vector<std::size_t> columns;
        for (std::size_t column = 0; column < kRecordingColumns; ++column) {
            if (InfoOf(column).mItem == item) {
                columns.push_back(column);
            }
        }
        return columns;
    }

    std::variant<int, double> MakeValue(std::size_t column)
    {
        const CellRule &rule = InfoOf(column).mRule;
        double value = 0.0;
        do {
            value = MakeNumber(column, rule);
        } while (!rule.Allows(value));
        const bool fitsInt = std::trunc(value) == value && std::abs(value) <= 2147483647.0;
        if (fitsInt && Below(2) == 0) {
            return static_cast<int>(value);
        }
        return value;
    }

    double MakeNumber(std::size_t column, const CellRule &rule)
    {
        double number = 0.0;
        switch (Below(8)) {
        case 0:
            number = rule.mMin;
            break;
        case 1:
            number = rule.mMax;
            break;
        case 2: // any double at all, the smallest included
            number = std::bit_cast<double>(mRandom());
            break;
        case 3:
            number = std::uniform_real_distribution<double>(rule.mMin, rule.mMax)(mRandom);
            break;
        default: // a counter goes on
            mCounts[column] += static_cast<double>(Below(100)) / (rule.mIsWhole ? 1.0 : 7.0);
            number = std::fmod(mCounts[column], rule.mMax + 1.0);
            break;
        }
        std::ostringstream digits; // as many as a recording has
        digits << std::setprecision(std::numeric_limits<double>::digits10) << number;
        return rule.mIsWhole ? std::trunc(number) : std::strtod(digits.str().c_str(), nullptr);
    }

    std::mt19937_64 mRandom;
    std::array<double, kRecordingColumns> mCounts = {};
};

/** Gives the process a time zone for one test. */
class ZoneGuard
{
public:
    explicit ZoneGuard(const char *zone)
    {
        const char *before = std::getenv("TZ");
        mBefore = before != nullptr ? std::optional<std::string>(before) : std::nullopt;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ZoneGuard()
    {
        if (mBefore) {
            setenv("TZ", mBefore->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    ZoneGuard(const ZoneGuard &) = delete;
    ZoneGuard &operator=(const ZoneGuard &) = delete;

private:
    std::optional<std::string> mBefore;
};

} // namespace

class RecordingWriterTest : public testing::Test
{
protected:
    /** The row of a reading without its end; or its error. */
    std::string Row(std::int64_t timeMs, ContextItem item, const std::vector<Value> &values)
    {
        const RecordingWriter::Row row = mWriter.MakeRow(timeMs, item, MakeReading(values));
        EXPECT_NE(row.mText.empty(), row.mError.empty());
        if (row.mText.empty()) {
            return row.mError;
        }
        EXPECT_EQ(row.mText.find('\n'), row.mText.size() - 1);
        return row.mText.substr(0, row.mText.size() - 1);
    }

    std::string Steps(std::int64_t timeMs, std::variant<int, double> steps)
    {
        return Row(timeMs, ContextItem::Pedometer,
                   {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, steps}});
    }

    std::string Distance(std::int64_t timeMs, double distance)
    {
        return Row(timeMs, ContextItem::Pedometer,
                   {{CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE, distance}});
    }

    RecordingWriter mWriter;
};

TEST_F(RecordingWriterTest, HeaderTellsTheStartAndTheColumns)
{
    const ZoneGuard zone("XYZ-05:30");
    EXPECT_EQ(RecordingWriter::Header(1769862896789),
              "# recording: what the sensors of a running service delivered\n"
              "# start_epoch_s: 1769862896\n"
              "# tz: +05:30 (start_epoch_s is UTC)\n"
              "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,calories_kcal,speed,"
              "activity,gesture,peak_to_peak,spo2,activity_accuracy,restart\n");
}

TEST_F(RecordingWriterTest, HeaderKnowsZonesWestOfGreenwich)
{
    const ZoneGuard zone("XYZ3:30");
    EXPECT_THAT(RecordingWriter::Header(0), testing::HasSubstr("# tz: -03:30 (start"));
}

TEST_F(RecordingWriterTest, EachItemHasItsColumns)
{
    EXPECT_EQ(Row(0, ContextItem::HeartRate,
                  {{CONTEXT_HRM_HEART_RATE, -3},
                   {CONTEXT_HRM_PEAK_TO_PEAK, 812.5},
                   {CONTEXT_HRM_SPO2, 98}}),
              "0,-3,,,,,,,,,812.5,98,,");
    EXPECT_EQ(Row(7, ContextItem::Activity,
                  {{CONTEXT_ACTIVITY_STATUS, 2.0}, {CONTEXT_ACTIVITY_ACCURACY, 3}}),
              "7,,,,,,,,2,,,,3,");
    EXPECT_EQ(Row(7, ContextItem::Gesture, {{CONTEXT_MOTION_ACTION, 4}}), "7,,,,,,,,,4,,,,");
    EXPECT_EQ(Row(1000, ContextItem::Pedometer,
                  {{CONTEXT_PEDOMETER_SPEED, 5.25},
                   {CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 30},
                   {CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT, 10.0},
                   {CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT, 20},
                   {CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE, 0.1},
                   {CONTEXT_PEDOMETER_CUMULATIVE_CALORIE, 2}}),
              "1000,,30,10,20,0.1,2,5.25,,,,,,");
}

TEST_F(RecordingWriterTest, NumbersHaveNoExponent)
{
    EXPECT_EQ(Distance(0, 0.00001), "0,,,,,0.00001,,,,,,,,");
    EXPECT_EQ(Distance(0, 1e9), "0,,,,,1000000000,,,,,,,,");
    EXPECT_EQ(Distance(0, 1e9), "0,,,,,1000000000,,,,,,,,");
    EXPECT_THAT(
        Distance(0, std::numeric_limits<double>::denorm_min()),
        testing::AllOf(testing::StartsWith("0,,,,,0.000000"), testing::EndsWith("5,,,,,,,,1")));
}

TEST_F(RecordingWriterTest, NumbersHaveNoDustOfSums)
{
    EXPECT_EQ(Distance(0, 0.1 + 0.2), "0,,,,,0.3,,,,,,,,");
    EXPECT_EQ(Distance(0, 171.01000000000002), "0,,,,,171.01,,,,,,,,");
    EXPECT_EQ(Distance(0, 171.01), "0,,,,,171.01,,,,,,,,") << "which is no smaller than before";
}

TEST_F(RecordingWriterTest, CounterThatGoesDownBeginsAnew)
{
    EXPECT_EQ(Steps(0, 100), "0,,100,,,,,,,,,,,");
    EXPECT_EQ(Steps(1, 100), "1,,100,,,,,,,,,,,");
    EXPECT_EQ(Steps(2, 99), "2,,99,,,,,,,,,,,1");
    EXPECT_EQ(Steps(3, 100), "3,,100,,,,,,,,,,,");
}

TEST_F(RecordingWriterTest, ValueThatIsNoLongerToldIsForgotten)
{
    const Value steps = {CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 5};
    const Value speed = {CONTEXT_PEDOMETER_SPEED, 4.0};
    EXPECT_EQ(Row(0, ContextItem::Pedometer, {steps, speed}), "0,,5,,,,,4,,,,,,");
    EXPECT_EQ(Row(1, ContextItem::Pedometer, {steps}), "1,,5,,,,,,,,,,,2");
    EXPECT_EQ(Row(2, ContextItem::Pedometer, {steps}), "2,,5,,,,,,,,,,,");
    EXPECT_EQ(Row(3, ContextItem::Pedometer, {steps, speed}), "3,,5,,,,,4,,,,,,");
}

TEST_F(RecordingWriterTest, ForgottenCounterThatComesBackLowerBeginsAnew)
{
    const Value steps = {CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 5};
    const auto distance = [](double metres) {
        return Value(CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE, metres);
    };
    EXPECT_EQ(Row(0, ContextItem::Pedometer, {steps, distance(9.5)}), "0,,5,,,9.5,,,,,,,,");
    EXPECT_EQ(Row(1, ContextItem::Pedometer, {steps}), "1,,5,,,,,,,,,,,2");
    EXPECT_EQ(Row(2, ContextItem::Pedometer, {steps, distance(9.5)}), "2,,5,,,9.5,,,,,,,,");
    EXPECT_EQ(Row(3, ContextItem::Pedometer, {steps}), "3,,5,,,,,,,,,,,2");
    EXPECT_EQ(Row(4, ContextItem::Pedometer, {steps, distance(9.25)}), "4,,5,,,9.25,,,,,,,,1");
}

TEST_F(RecordingWriterTest, CounterThatGoesDownOutweighsAValueThatIsForgotten)
{
    const Value speed = {CONTEXT_PEDOMETER_SPEED, 4.0};
    EXPECT_EQ(
        Row(0, ContextItem::Pedometer, {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 5}, speed}),
        "0,,5,,,,,4,,,,,,");
    EXPECT_EQ(Steps(1, 4), "1,,4,,,,,,,,,,,1");
    EXPECT_EQ(Steps(2, 4), "2,,4,,,,,,,,,,,");
}

TEST_F(RecordingWriterTest, SpeedMayGoDown)
{
    EXPECT_EQ(Row(0, ContextItem::Pedometer, {{CONTEXT_PEDOMETER_SPEED, 4.0}}), "0,,,,,,,4,,,,,,");
    EXPECT_EQ(Row(0, ContextItem::Pedometer, {{CONTEXT_PEDOMETER_SPEED, 3.0}}), "0,,,,,,,3,,,,,,");
}

TEST_F(RecordingWriterTest, ValueThatDoesNotFitIsNamed)
{
    EXPECT_EQ(Steps(0, -1), "total_steps: -1 is not a whole number from 0 to 2147483647");
    EXPECT_EQ(Steps(0, 2147483648.0),
              "total_steps: 2147483648 is not a whole number from 0 to 2147483647");
    EXPECT_EQ(Steps(0, 0.5), "total_steps: 0.5 is not a whole number from 0 to 2147483647");
    EXPECT_EQ(Distance(0, -0.5), "distance_m: -0.5 is not a decimal number from 0 to 1000000000");
    EXPECT_EQ(Distance(0, 1e300),
              "distance_m: 1e+300 is not a decimal number from 0 to 1000000000");
    EXPECT_EQ(Distance(0, std::nan("")),
              "distance_m: nan is not a decimal number from 0 to 1000000000");
    EXPECT_EQ(Distance(0, std::numeric_limits<double>::infinity()),
              "distance_m: inf is not a decimal number from 0 to 1000000000");
    EXPECT_EQ(Row(0, ContextItem::HeartRate, {{CONTEXT_HRM_HEART_RATE, 72.5}}),
              "heart_rate: 72.5 is not a whole number of 32 bits");
    EXPECT_EQ(Row(0, ContextItem::HeartRate, {{CONTEXT_HRM_SPO2, 1e10}}),
              "spo2: 1e+10 is not a decimal number from -2147483648 to 2147483647");
    EXPECT_EQ(Row(0, ContextItem::Activity, {{CONTEXT_ACTIVITY_STATUS, 4}}),
              "activity: 4 is not an activity from 0 to 3");
}

TEST_F(RecordingWriterTest, ReadingWithoutAColumnIsNamed)
{
    EXPECT_EQ(Row(0, ContextItem::HeartRate, {{CONTEXT_MOTION_ACTION, 1}}),
              "there is no column for motion/action of item 7");
    EXPECT_EQ(Row(0, ContextItem::Gesture, {}), "a reading of item 1 has no value");
}

TEST_F(RecordingWriterTest, TimeIsChecked)
{
    EXPECT_EQ(Steps(-1, 0), "t_ms: -1 is not a time from 0 to 1000000000000 ms");
    EXPECT_EQ(Steps(1'000'000'000'001, 0),
              "t_ms: 1000000000001 is not a time from 0 to 1000000000000 ms");
    EXPECT_EQ(Steps(1'000'000'000'000, 0), "1000000000000,,0,,,,,,,,,,,");
    EXPECT_EQ(Steps(999'999'999'999, 0),
              "t_ms: the time goes back from 1000000000000 to 999999999999 ms");
}

TEST_F(RecordingWriterTest, RefusedReadingLeavesNoTrace)
{
    EXPECT_EQ(Steps(10, 100), "10,,100,,,,,,,,,,,");
    EXPECT_EQ(Row(20, ContextItem::Pedometer,
                  {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 500},
                   {CONTEXT_PEDOMETER_SPEED, -1.0}}),
              "speed: -1 is not a decimal number from 0 to 1000000000");
    EXPECT_EQ(Steps(15, 101), "15,,101,,,,,,,,,,,");
}

TEST_F(RecordingWriterTest, OfAKeyThatIsThereTwiceTheFirstValueCounts)
{
    EXPECT_EQ(
        Row(0, ContextItem::Gesture, {{CONTEXT_MOTION_ACTION, 4}, {CONTEXT_MOTION_ACTION, 5}}),
        "0,,,,,,,,,4,,,,");
}

TEST_F(RecordingWriterTest, ReadingsOfOneMomentComeBackInTheirOrder)
{
    std::string text = RecordingWriter::Header(0);
    const auto write = [&](ContextItem item, const char *key, int value) {
        text += mWriter.MakeRow(3, item, MakeReading({{key, value}})).mText;
    };
    write(ContextItem::Gesture, CONTEXT_MOTION_ACTION, 1);
    write(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 60);
    write(ContextItem::Gesture, CONTEXT_MOTION_ACTION, 2);
    write(ContextItem::Activity, CONTEXT_ACTIVITY_STATUS, 3);
    write(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 61);

    std::vector<ContextItem> items;
    for (const Told &told : Player().Play(ParseRecording("f.csv", text))) {
        items.push_back(std::get<ContextItem>(told));
    }
    EXPECT_THAT(items,
                ElementsAre(ContextItem::Gesture, ContextItem::HeartRate, ContextItem::Gesture,
                            ContextItem::Activity, ContextItem::HeartRate));
}

TEST_F(RecordingWriterTest, AnyReadingsComeBackTheSame)
{
    constexpr std::uint64_t kCases = 3000;
    std::size_t refused = 0;
    for (std::uint64_t seed = 1; seed <= kCases; ++seed) {
        ReadingMaker maker(seed);
        RecordingWriter writer;
        std::string text = RecordingWriter::Header(0);
        std::vector<Told> written;
        std::int64_t timeMs = 0;
        const std::size_t count = 1 + maker.Below(30);
        while (written.size() < count) {
            timeMs += static_cast<std::int64_t>(maker.Below(3) == 0 ? 0 : maker.Below(2000));
            const ContextItem item = maker.MakeItem();
            if (maker.Below(10) == 0) {
                EXPECT_EQ(writer.MakeRow(timeMs, item, maker.MakeInvalid(item)).mText, "");
                ++refused;
            }
            const SensorReading reading = maker.MakeValid(item);
            const RecordingWriter::Row row = writer.MakeRow(timeMs, item, reading);
            ASSERT_EQ(row.mError, "") << "seed " << seed;
            text += row.mText;
            written.emplace_back(timeMs, item, AsRead(reading));
        }
        ASSERT_EQ(Player().Play(ParseRecording("f.csv", text)), written) << "seed " << seed << "\n"
                                                                         << text;
    }
    EXPECT_GT(refused, kCases);
}

TEST_F(RecordingWriterTest, BundledRecordingComesBackTheSame)
{
    const Recording bundled = LoadRecordings({PARVANE_RECORDING});
    const std::vector<Told> original = Player().Play(bundled);
    ASSERT_GT(original.size(), 5000U);

    const std::string text = Player().Record(bundled);

    EXPECT_EQ(Player().Play(ParseRecording("f.csv", text)), original);
}

TEST_F(RecordingWriterTest, RecordingOfARecordingIsTheSameText)
{
    const std::string first = Player().Record(LoadRecordings({PARVANE_RECORDING}));
    EXPECT_TRUE(Player().Record(ParseRecording("f.csv", first)) == first);
}

} // namespace ParvanePlatform
