#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include <gio/gio.h>

#include "Admission.h"
#include "PhoneSeat.h"
#include "Settings.h"
#include "TokenStore.h"
#include "WebSocket.h"

namespace ParvaneGateway {

/** What was refused, and why. Of each reason a log line a minute at most. */
class Refusals
{
public:
    void Count(const std::string &reason, const std::string &address);

    [[nodiscard]] const std::map<std::string, std::uint64_t> &Counts() const { return mCounts; }

private:
    std::map<std::string, std::uint64_t> mCounts;
    std::map<std::string, std::chrono::steady_clock::time_point> mLogged;
};

/** How long a connection has for what. */
struct WebTimes
{
    /** From the connection to a whole request, TLS and all. */
    std::chrono::milliseconds mHandshake{5000};
    /** For a client to read its answer and to go. */
    std::chrono::milliseconds mLinger{1000};
    /** The same, for an answer that did not go out at once. */
    std::chrono::milliseconds mBody{15000};
    Parvane::WebSocketTimes mSocket;
};

/** What all connections of the network share; all that it refers to is borrowed. */
struct WebContext
{
    const WebSettings &mSettings;
    PhoneSeat &mSeat;
    const TokenStore &mTokens;
    std::string mControlSocket;
    WebTimes mTimes;
    /** Null without TLS. */
    GTlsCertificate *mCertificate = nullptr;
    /** Whether requests without TLS are served. */
    bool mMayBePlain = true;
    Admission mAdmission{mTokens};
    Refusals mRefusals{};
};

} // namespace ParvaneGateway
