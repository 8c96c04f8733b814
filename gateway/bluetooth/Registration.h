#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "BusScope.h"
#include "LoopSource.h"

namespace ParvaneGateway {

/**
 * Something of ours that one adapter of BlueZ knows while it is wanted: registered then, again after a
 * pause when that is refused, which doubles up to kLongestPause, and taken back when it is wanted
 * no more, or at the end. Main-loop thread only.
 */
class Registration
{
public:
    static constexpr std::chrono::milliseconds kLongestPause{30000};

    /** By strings that live as long as the process; the methods take the path of `mObject`. */
    struct Methods
    {
        const char *mInterface = nullptr;
        const char *mRegister = nullptr;
        const char *mUnregister = nullptr;
        const char *mObject = nullptr;
    };

    /** Called whenever IsOn() has changed; must not destroy the registration. */
    using Changed = std::function<void()>;

    /** @param bluez  where BlueZ is called @param adapter  its path */
    Registration(const Parvane::BusScope &bluez, std::string adapter, const Methods &methods,
                 std::chrono::milliseconds firstPause, Changed changed);
    ~Registration();

    Registration(const Registration &) = delete;
    Registration &operator=(const Registration &) = delete;

    void Want(bool isWanted);

    /** Whether BlueZ has it. */
    [[nodiscard]] bool IsOn() const { return mState == State::On; }

    /** What was refused last, and why; empty when it was not, or is there. */
    [[nodiscard]] const std::string &Problem() const { return mProblem; }

    /** BlueZ has ended it by itself: it is registered again, after a pause. */
    void Lost();

private:
    enum class State { Off, Asked, On, Ending };

    void Advance();
    void Register();
    void Unregister();
    void OnRegistered(const GError *error);
    void Retry(const std::string &problem);

    Parvane::BusScope mBluez;
    std::string mAdapter;
    Methods mMethods;
    Changed mChanged;
    State mState = State::Off;
    bool mIsWanted = false;
    std::string mProblem;
    std::chrono::milliseconds mFirstPause;
    std::chrono::milliseconds mPause;
    Parvane::LoopSource mRetry;
};

} // namespace ParvaneGateway
