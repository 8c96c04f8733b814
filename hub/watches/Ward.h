#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "LoopSource.h"
#include "UniqueFd.h"
#include "Watch.h"

namespace ParvaneHub {

/**
 * All watches, in one thread. They share a descriptor of epoll(7) and a timer, so that the cost of a
 * watch that has nothing to say does not depend on how many there are. Main-loop thread only.
 */
class Ward
{
public:
    using Watches = std::map<std::string, WatchSettings>;

    /**
     * @param listener  borrowed
     * @param onTurnEnd  called when something may have been told
     * @throws std::runtime_error when the system has no descriptor left
     */
    Ward(WatchListener &listener, std::function<void()> onTurnEnd);

    /**
     * Follows these watches and no others. Those that stay as they are notice nothing of it; one whose
     * settings are others begins anew, with what is known of its steps.
     *
     * @param savedSteps  by watch, as WatchListener::OnSteps() had them
     */
    void Set(const Watches &watches, const std::map<std::string, std::string> &savedSteps);

    /** Calls `look` for each watch, by name. */
    template <typename Look>
    void ForEach(Look look) const
    {
        for (const auto &[name, bed] : mBeds) {
            look(bed->mWatch);
        }
    }

    [[nodiscard]] std::size_t Size() const { return mBeds.size(); }

private:
    /** A watch, and what the loop knows of it. */
    struct Bed
    {
        template <typename... Arguments>
        explicit Bed(Arguments &&...arguments) : mWatch(std::forward<Arguments>(arguments)...)
        {}

        Watch mWatch;
        int mFd = -1; // that epoll was told of last
        short mAwaits = 0;
        Watch::SteadyTime mDeadline = Watch::SteadyTime::max(); // in mDeadlines
    };

    void OnEvents();
    void OnDue();
    void Turn(Bed &bed);
    void Arm(Bed &bed);
    void Rearm();
    void Remove(std::map<std::string, std::unique_ptr<Bed>>::iterator bed);

    WatchListener &mListener;
    std::function<void()> mOnTurnEnd;
    Parvane::UniqueFd mEpoll;
    std::map<std::string, std::unique_ptr<Bed>> mBeds;
    std::set<std::pair<Watch::SteadyTime, Bed *>> mDeadlines;
    Watch::SteadyTime mArmed = Watch::SteadyTime::max();
    Parvane::LoopSource mEvents;
    Parvane::LoopSource mTimer;
};

} // namespace ParvaneHub
