#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ServiceLife.h"

namespace Parvane {

/** An undisturbed life of a scenario: what a sweep goes through, and what it compares with. */
struct Reference
{
    std::vector<std::string> mCalls;
    std::vector<std::string> mSent;
    std::vector<std::string> mList;
    std::vector<std::string> mReplies;
    int mHookableCalls = 0;
    int mAllocations = 0;
};

/** Lives the scenario undisturbed, in a process of its own; kept for the next call. */
const Reference &ReferenceOf(const Scenario &scenario);

/** What a service that has done nothing before replies to the healthy requests. */
const std::vector<std::string> &FreshReplies();

/** The messages of a life as text, to be compared with those of a reference. */
std::vector<std::string> SentOf(const LifeRecord &record);
std::vector<std::string> ListOf(const LifeRecord &record);

/**
 * Counts the points of a sweep and says in the end, in one line, how many there were.
 *
 * With PARVANE_SWEEP_STRIDE=N in the environment only every N-th point is lived through.
 */
class Sweep
{
public:
    /** `what` names the points in the last line, "allocations", and `scenario` where they are. */
    Sweep(std::string what, std::string scenario);
    Sweep(const Sweep &) = delete;
    Sweep &operator=(const Sweep &) = delete;
    ~Sweep();

    /**
     * Lives the scenario with one disturbance, in a process of its own, and looks at the outcome.
     *
     * @param check  looks at the record in that process; a text other than "" is an outcome that is
     *     counted under it
     * @return false when the test has failed and the sweep is to end
     */
    bool Point(const std::string &name, const Scenario &scenario, const Disturbance &disturbance,
               const std::function<std::string(const LifeRecord &)> &check);

private:
    std::string mWhat;
    std::string mScenario;
    int mPoints = 0;
    int mLived = 0;
    std::map<std::string, int> mOutcomes;
};

} // namespace Parvane
