#include "Sweep.h"

#include <cstdio>
#include <sstream>
#include <utility>

#include <gtest/gtest.h>

#include "ForkedCall.h"
#include "Setting.h"

namespace Parvane {

namespace {

std::string Digits(const Bytes &bytes)
{
    std::string text;
    for (const uint8_t byte : bytes) {
        text += (text.empty() ? "" : " ") + std::to_string(byte);
    }
    return text;
}

std::vector<std::string> DigitsOfEach(const std::vector<Bytes> &messages)
{
    std::vector<std::string> texts;
    texts.reserve(messages.size());
    for (const Bytes &message : messages) {
        texts.push_back(Digits(message));
    }
    return texts;
}

// One line for each thing, its kind first.
std::string ToText(const LifeRecord &record)
{
    std::string text;
    for (const std::string &call : record.mCalls) {
        text += "C" + call + "\n";
    }
    for (const std::string &sent : SentOf(record)) {
        text += "S" + sent + "\n";
    }
    for (const std::string &packet : ListOf(record)) {
        text += "L" + packet + "\n";
    }
    for (const std::string &reply : record.mReplies) {
        text += "R" + reply + "\n";
    }
    text += "H" + std::to_string(record.mHookableCalls) + "\n";
    text += "A" + std::to_string(record.mAllocations) + "\n";
    return text;
}

Reference FromText(const std::string &text)
{
    Reference reference;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::string rest = line.substr(1);
        switch (line[0]) {
        case 'C':
            reference.mCalls.push_back(rest);
            break;
        case 'S':
            reference.mSent.push_back(rest);
            break;
        case 'L':
            reference.mList.push_back(rest);
            break;
        case 'R':
            reference.mReplies.push_back(rest);
            break;
        case 'H':
            reference.mHookableCalls = std::stoi(rest);
            break;
        case 'A':
            reference.mAllocations = std::stoi(rest);
            break;
        default:
            ADD_FAILURE() << line;
        }
    }
    return reference;
}

} // namespace

std::vector<std::string> SentOf(const LifeRecord &record)
{
    return DigitsOfEach(record.mSent);
}

std::vector<std::string> ListOf(const LifeRecord &record)
{
    return DigitsOfEach(record.mList);
}

const Reference &ReferenceOf(const Scenario &scenario)
{
    static std::map<std::string, Reference> references;
    const auto known = references.find(scenario.mName);
    if (known != references.end()) {
        return known->second;
    }
    const std::string text = CallForked(std::string(scenario.mName) + " undisturbed",
                                        [&scenario] { return ToText(Live(scenario, {})); });
    return references[scenario.mName] = FromText(text);
}

const std::vector<std::string> &FreshReplies()
{
    return ReferenceOf(Scenarios().front()).mReplies;
}

Sweep::Sweep(std::string what, std::string scenario)
    : mWhat(std::move(what)), mScenario(std::move(scenario))
{}

Sweep::~Sweep()
{
    std::printf("swept %s: %d of %d %s", mScenario.c_str(), mLived, mPoints, mWhat.c_str());
    for (const auto &[outcome, count] : mOutcomes) {
        std::printf(", %d %s", count, outcome.c_str());
    }
    std::printf("\n");
}

bool Sweep::Point(const std::string &name, const Scenario &scenario, const Disturbance &disturbance,
                  const std::function<std::string(const LifeRecord &)> &check)
{
    static const int stride = Setting("PARVANE_SWEEP_STRIDE", 1);
    if (mPoints++ % stride != 0) {
        return true;
    }
    ++mLived;
    const std::string outcome = CallForked(scenario.mName + (", " + name),
                                           [&] { return check(Live(scenario, disturbance)); });
    if (!outcome.empty()) {
        ++mOutcomes[outcome];
    }
    return !testing::Test::HasFailure();
}

} // namespace Parvane
