#include "Registration.h"

#include <algorithm>
#include <utility>

#include "BluezNames.h"

namespace ParvaneGateway {

Registration::Registration(const Parvane::BusScope &bluez, std::string adapter,
                           const Methods &methods, std::chrono::milliseconds firstPause,
                           Changed changed)
    : mBluez(bluez.Connection(), bluez.Peer()),
      mAdapter(std::move(adapter)),
      mMethods(methods),
      mChanged(std::move(changed)),
      mFirstPause(firstPause),
      mPause(firstPause)
{}

Registration::~Registration()
{
    // Also while it is being made: BlueZ takes both calls in their order.
    if (mState == State::On || mState == State::Asked) {
        mBluez.Send(mAdapter, mMethods.mInterface, mMethods.mUnregister,
                    g_variant_new("(o)", mMethods.mObject));
    }
}

void Registration::Want(bool isWanted)
{
    mIsWanted = isWanted;
    Advance();
}

void Registration::Lost()
{
    if (mState == State::On) {
        mState = State::Off;
        Retry("it was ended");
    }
}

void Registration::Advance()
{
    if (!mIsWanted) {
        mRetry.Remove();
        mPause = mFirstPause;
    }
    if (mIsWanted && mState == State::Off && !mRetry.IsActive()) {
        Register();
    } else if (!mIsWanted && mState == State::On) {
        Unregister();
    }
}

void Registration::Register()
{
    mState = State::Asked;
    mBluez.Call(mAdapter, mMethods.mInterface, mMethods.mRegister,
                g_variant_new("(oa{sv})", mMethods.mObject, nullptr), "()",
                [this](GVariant * /*reply*/, const GError *error) { OnRegistered(error); });
}

void Registration::OnRegistered(const GError *error)
{
    if (error != nullptr && !Parvane::IsBusError(error, Bluez::kAlreadyExists)) {
        mState = State::Off;
        Retry(Parvane::BusReason(error));
        return;
    }
    mState = State::On;
    mPause = mFirstPause;
    mProblem.clear();
    Advance();
    mChanged();
}

void Registration::Unregister()
{
    mState = State::Ending;
    // Whatever it answers, it is there no more.
    mBluez.Call(mAdapter, mMethods.mInterface, mMethods.mUnregister,
                g_variant_new("(o)", mMethods.mObject), "()",
                [this](GVariant * /*reply*/, const GError * /*error*/) {
                    mState = State::Off;
                    Advance();
                    mChanged();
                });
}

void Registration::Retry(const std::string &problem)
{
    mProblem = std::string(mMethods.mRegister) + ": " + problem;
    if (mIsWanted) {
        mRetry = Parvane::LoopSource::After(mPause, [this] {
            mRetry.Remove();
            Advance();
        });
        mPause = std::min(2 * mPause, kLongestPause);
    }
    mChanged();
}

} // namespace ParvaneGateway
