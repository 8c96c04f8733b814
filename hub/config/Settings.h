#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace ParvaneHub {

/** What is asked of a watch. */
struct Wishes
{
    /** Between two questions for the heart rate, at least 30 s; 0: it is not asked for. */
    std::chrono::seconds mHeartRate{900};
    /** For the worn state by itself, at least 10 s; 0: it is told with each heart rate only. */
    std::chrono::seconds mWorn{0};
    bool mSteps = true;
    bool mActivity = false;

    bool operator==(const Wishes &) const = default;
};

/** Section [watch NAME]. */
struct WatchSettings
{
    /** "unix:/run/parvane/link.sock", or ws:// and wss:// with a host. */
    std::string mLink;
    std::string mTokenFile;   // ws and wss
    std::string mFingerprint; // wss: of the certificate, SHA-256; empty: one that the system trusts
    Wishes mWishes;

    bool operator==(const WatchSettings &) const = default;
};

/** Section [broker]. */
struct BrokerSettings
{
    std::string mHost = "127.0.0.1";
    int mPort = 0; // 0: 1883, and 8883 with TLS
    bool mIsVersion5 = false;
    std::string mClientId; // empty: parvane-hub and the host's name
    std::string mUser;
    std::string mPasswordFile;
    bool mTls = false;
    std::string mAuthorities; // PEM; empty: those of the system
    std::string mCertificate; // PEM, with mKey: who the hub is
    std::string mKey;
    std::chrono::seconds mKeepAlive{60};

    bool operator==(const BrokerSettings &) const = default;
};

/** Section [queue]: what is kept while the broker is away. */
struct QueueSettings
{
    std::int64_t mMostBytes = 64LL * 1024 * 1024;
    std::chrono::seconds mMostAge{std::chrono::hours{24 * 7}};

    bool operator==(const QueueSettings &) const = default;
};

/** What the configuration asks of the hub; the defaults are those of an empty file. */
struct Settings
{
    BrokerSettings mBroker;
    /** Section [topics]: what all topics begin with, and those of the discovery; the latter may be empty. */
    std::string mTopic = "parvane";
    std::string mDiscovery = "homeassistant";
    QueueSettings mQueue;
    /** Section [metrics]: ADDRESS:PORT; empty: none. */
    std::string mMetrics = "127.0.0.1:8468";
    std::string mStateDirectory = "/var/lib/parvane-hub";
    std::string mRuntimeDirectory = "/run/parvane-hub";
    std::map<std::string, WatchSettings> mWatches; // by name

    bool operator==(const Settings &) const = default;
};

} // namespace ParvaneHub
