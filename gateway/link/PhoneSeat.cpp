#include "PhoneSeat.h"

#include <cerrno>
#include <utility>

#include "ErrnoText.h"
#include "Log.h"

namespace ParvaneGateway {

PhoneSeat::PhoneSeat(std::string linkSocket) : mLink(std::move(linkSocket), *this) {}

PhoneSeat::Answer PhoneSeat::Sit(Phone &phone)
{
    if (IsTaken()) {
        ++mStatus.mRefusedForAnother;
        return Answer::AnotherPhone;
    }
    const int error = mIsStopped ? ECANCELED : mLink.Connect();
    if (error != 0) {
        ++mStatus.mRefusedForWatch;
        Parvane::LogInfo("the watch service takes no phone: " + mLink.Path() + ": " +
                         Parvane::ErrnoText(error));
        return Answer::WatchAway;
    }
    mPhone = &phone;
    mMayGoOn = true;
    mStatus.mPhone = phone.Identity();
    mStatus.mSince = std::chrono::system_clock::now();
    ++mStatus.mPhones;
    Tell();
    return Answer::Seated;
}

bool PhoneSeat::Packet(Phone &phone, PacketBytes packet)
{
    if (mPhone != &phone) {
        return false;
    }
    if (!mToWatch.Push(packet)) {
        End(PhoneEnd::TooMuch);
        return false;
    }
    mMayGoOn = Flush();
    return mMayGoOn;
}

void PhoneSeat::HasRoom(Phone &phone)
{
    if (mPhone == &phone) {
        mLink.Resume();
    }
}

void PhoneSeat::Left(Phone &phone)
{
    if (mPhone != &phone) {
        return;
    }
    mPhone = nullptr;
    mStatus.mPhone.reset();
    if (Flush()) {
        CloseLink();
        return;
    }
    mLink.StopReading();
    mLeaving = Parvane::LoopSource::After(kLeavingTime, [this] {
        Parvane::LogWarning("the last packets of a phone are dropped: the watch does not read");
        CloseLink();
    });
}

void PhoneSeat::Stop()
{
    mIsStopped = true;
    if (mPhone != nullptr) {
        End(PhoneEnd::Stopping);
    }
}

void PhoneSeat::AddListener(std::function<void()> listener)
{
    mListeners.push_back(std::move(listener));
}

bool PhoneSeat::OnWatchPacket(PacketBytes packet)
{
    if (mPhone == nullptr || !mPhone->Deliver(packet)) {
        return false;
    }
    ++mStatus.mPacketsToPhone;
    return true;
}

void PhoneSeat::OnWatchRoom()
{
    if (!Flush()) {
        return;
    }
    if (mPhone == nullptr) {
        CloseLink();
    } else if (!std::exchange(mMayGoOn, true)) {
        mPhone->GoOn();
    }
}

void PhoneSeat::OnWatchEnd()
{
    if (mPhone != nullptr) {
        End(PhoneEnd::WatchAway);
    } else {
        CloseLink();
    }
}

bool PhoneSeat::Flush()
{
    while (!mToWatch.IsEmpty()) {
        switch (mLink.Send(mToWatch.Front())) {
        case WatchLink::Sent::Yes:
            ++mStatus.mPacketsToWatch;
            mToWatch.Pop();
            break;
        case WatchLink::Sent::NoRoom:
            return false;
        case WatchLink::Sent::Gone:
            mToWatch.Clear(); // its end is read where the link is read
            return true;
        }
    }
    return true;
}

void PhoneSeat::End(PhoneEnd why)
{
    Phone *phone = std::exchange(mPhone, nullptr);
    mStatus.mPhone.reset();
    CloseLink();
    phone->Close(why);
}

void PhoneSeat::CloseLink()
{
    mLeaving.Remove();
    mToWatch.Clear();
    mLink.Close();
    Tell();
}

void PhoneSeat::Tell()
{
    for (const auto &listener : mListeners) {
        listener();
    }
}

} // namespace ParvaneGateway
