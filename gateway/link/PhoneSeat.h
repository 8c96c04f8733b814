#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "LoopSource.h"
#include "PacketQueue.h"
#include "Phone.h"
#include "WatchLink.h"

namespace ParvaneGateway {

/**
 * The one place that a phone has at the watch, over all roads. The accessory link is connected while
 * somebody sits here, so the watch's link state is the phone's.
 *
 * Packets pass as they are and in their order. Of a phone that has gone nothing reaches the next one:
 * each has a connection of its own to the watch, and what the watch has sent for the one goes with it.
 * Nobody waits for anybody: what has no room rests where it is, with the phone or with the watch.
 *
 * Roads call it, and are called through Phone, on the main loop; each may call the other from inside.
 */
class PhoneSeat : private WatchLinkEvents
{
public:
    /** How long the last packets of a phone that has gone wait for a watch that does not read. */
    static constexpr std::chrono::milliseconds kLeavingTime{5000};

    /** @param linkSocket  path of the watch service's socket "link.sock" */
    explicit PhoneSeat(std::string linkSocket);
    ~PhoneSeat() override = default;

    PhoneSeat(const PhoneSeat &) = delete;
    PhoneSeat &operator=(const PhoneSeat &) = delete;

    enum class Answer {
        Seated,
        /** Another phone sits here, of whatever road. WebSocket: 4409 "another phone is connected". */
        AnotherPhone,
        /** The watch service is not there or takes nobody. WebSocket: 4503. */
        WatchAway
    };

    /**
     * Connects a phone that is let in to the watch. Its packets are told from the main loop later.
     *
     * @param phone  borrowed until Left() or Phone::Close(), when it was seated
     */
    Answer Sit(Phone &phone);

    /**
     * One packet of the phone, of at most kMaxPacketBytes; it is used during the call only.
     *
     * @return false when the watch does not read fast enough: the packet has been taken, and the road
     *         brings no more of them before Phone::GoOn(). One that does so all the same is closed with
     *         PhoneEnd::TooMuch before more than kMaxWaitingBytes wait
     *
     * From a phone that does not sit here, nothing is taken.
     */
    bool Packet(Phone &phone, PacketBytes packet);

    /** Phone::Deliver() has returned false, and now there is room. May call Deliver() at once. */
    void HasRoom(Phone &phone);

    /** The phone has gone. What it has sent still reaches the watch. Nothing refers to it any more. */
    void Left(Phone &phone);

    /** Whether the next phone would be refused: one sits here, or the last packets of one are on their way. */
    [[nodiscard]] bool IsTaken() const { return mLink.IsOpen(); }

    /** Closes the phone with PhoneEnd::Stopping, and seats nobody any more. */
    void Stop();

    /** Calls `listener` whenever IsTaken() has changed; for roads that rest meanwhile. Lives as long as the seat. */
    void AddListener(std::function<void()> listener);

    struct Status
    {
        /** Who sits here; empty when nobody does. */
        std::optional<PhoneIdentity> mPhone;
        /** Since when, by the clock of the day. */
        std::chrono::system_clock::time_point mSince;
        /** Since the start of the gateway. */
        std::uint64_t mPhones = 0;
        std::uint64_t mPacketsToWatch = 0;
        std::uint64_t mPacketsToPhone = 0;
        std::uint64_t mRefusedForAnother = 0;
        std::uint64_t mRefusedForWatch = 0;
    };
    [[nodiscard]] const Status &GetStatus() const { return mStatus; }

private:
    bool OnWatchPacket(PacketBytes packet) override;
    void OnWatchRoom() override;
    void OnWatchEnd() override;
    /** Sends what waits for the watch. @return whether nothing of it is left */
    bool Flush();
    void End(PhoneEnd why);
    void CloseLink();
    void Tell();

    Phone *mPhone = nullptr; // borrowed, see Sit()
    WatchLink mLink;
    PacketQueue mToWatch;
    bool mMayGoOn = true;
    bool mIsStopped = false;
    Parvane::LoopSource mLeaving;
    std::vector<std::function<void()>> mListeners;
    Status mStatus;
};

} // namespace ParvaneGateway
