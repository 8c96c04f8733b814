#include <chrono>
#include <cstdint>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StepLedger.h"
#include "Vectors.h"

using namespace ParvaneHost;
using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

std::int64_t StepsOf(const StepLedger &ledger)
{
    std::int64_t steps = 0;
    for (const auto &[date, day] : ledger.Days()) {
        steps += day.mSteps;
    }
    return steps;
}

/** Takes a total of an exchange; one that does not tell its count follows something that was missed. */
void Take(StepLedger &ledger, const json &event, seconds begins)
{
    if (!event.contains("count")) {
        ledger.Missed();
    }
    const Instant at(begins + milliseconds(event.at("at_ms").get<std::int64_t>()));
    ledger.Take({event.at("packet").at("value").get<float>(), std::chrono::floor<seconds>(at), at});
}

/** The zone of a list of instants, in seconds, from which on an offset holds. */
ZoneOffset ZoneOf(const json &changes)
{
    return [changes](std::chrono::sys_seconds instant) {
        seconds offset{0};
        for (const json &change : changes) {
            if (change.at(0).get<std::int64_t>() <= instant.time_since_epoch().count()) {
                offset = seconds(change.at(1).get<std::int64_t>());
            }
        }
        return offset;
    };
}

void Enter(StepLedger &ledger, const json &event, const ZoneOffset &zone)
{
    if (event.contains("link")) {
        ledger.Connected(event.at("link").get<std::string>());
    } else if (event.contains("missed")) {
        ledger.Missed();
    } else if (event.contains("restored")) {
        ledger = StepLedger::Restore(ledger.Save(), zone).Value();
    } else {
        StepTotal total{event.at("total").get<float>(), std::nullopt,
                        Instant(milliseconds(event.at("at_ms").get<std::int64_t>()))};
        if (!event.at("watch_s").is_null()) {
            total.mWatchTime =
                std::chrono::sys_seconds(seconds(event.at("watch_s").get<std::int64_t>()));
        }
        ledger.Take(total);
    }
}

} // namespace

TEST(StepLedgerVectorsTest, EachLedgerIsStoredAsItStands)
{
    const json file = Parvane::Vectors::Read("ledgers.json");
    EXPECT_GT(file.at("ledgers").size(), 15U);
    for (const json &vector : file.at("ledgers")) {
        SCOPED_TRACE(vector.at("name"));
        const ZoneOffset zone = ZoneOf(vector.at("zone"));
        StepLedger ledger(zone);
        for (const json &event : vector.at("events")) {
            Enter(ledger, event, zone);
            EXPECT_EQ(ledger.WantsQuestion(), event.at("unsure")) << event;
        }
        std::string text;
        for (const json &line : vector.at("text")) {
            text += line.get<std::string>() + '\n';
        }
        EXPECT_EQ(ledger.Save(), text);
        EXPECT_EQ(StepLedger::Restore(text, zone).Value().Save(), text);
    }
}

TEST(StepLedgerVectorsTest, TheStepsOfEachExchangeAreThoseWalked)
{
    int compared = 0;
    const json exchanges = Parvane::Vectors::Read("exchanges.json");
    for (const json &exchange : exchanges.at("exchanges")) {
        SCOPED_TRACE(exchange.at("name"));
        StepLedger ledger([](auto) { return seconds(0); });
        const seconds begins(exchange.at("begins").get<std::int64_t>());
        for (const json &event : exchange.at("events")) {
            if (event.value("link", "") == "up") {
                ledger.Connected();
            } else if (event.value("from", "") == "watch" &&
                       event.at("packet").at("kind") == "reading" &&
                       event.at("packet").at("sensor") == 2) {
                Take(ledger, event, begins);
            }
            if (event.contains("walked")) {
                EXPECT_EQ(StepsOf(ledger), event.at("walked")) << event;
                ++compared;
            }
        }
    }
    EXPECT_GT(compared, 15);
}
