#include <chrono>
#include <cstdint>

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

} // namespace

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
