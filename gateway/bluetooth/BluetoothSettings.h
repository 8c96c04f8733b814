#pragma once

#include <chrono>
#include <string>

namespace ParvaneGateway {

/** How the watch shows itself over Bluetooth. */
struct BluetoothSettings
{
    /** The adapter, such as "hci0"; empty for the first one that is powered. */
    std::string mAdapter;
    /** The name that is advertised; empty for the adapter's own. */
    std::string mName;
    /** Whether a phone must have been paired by a number that both sides showed or that was typed in. */
    bool mIsAuthenticated = false;
    /** After what is refused or not there, until it is tried again; each next pause is twice as long. */
    std::chrono::milliseconds mFirstPause{1000};
    /** How long a phone that asks for something may take to be bonded: its pairing has just ended then. */
    std::chrono::milliseconds mBondingTime{3000};
};

} // namespace ParvaneGateway
