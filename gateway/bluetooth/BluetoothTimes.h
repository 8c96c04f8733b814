#pragma once

#include <chrono>

namespace ParvaneGateway {

/** How long the road over Bluetooth waits; shorter in tests. */
struct BluetoothTimes
{
    /** After what is refused or not there, until it is tried again; each next pause is twice as long. */
    std::chrono::milliseconds mFirstPause{1000};
    /** How long a phone that asks for something may take to be bonded: its pairing has just ended then. */
    std::chrono::milliseconds mBondingTime{3000};
};

} // namespace ParvaneGateway
