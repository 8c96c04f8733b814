#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ParvaneGateway {

/** Section [web]: the network. */
struct WebSettings
{
    bool mEnabled = true;
    /** An address of this host, IPv4 or IPv6. */
    std::string mAddress = "127.0.0.1";
    /** 0: a free one, which the log tells. */
    int mPort = 8467;
    /** Whether TLS is served. On a loopback address, and where mInsecure says so, plain HTTP is as well. */
    bool mTls = true;
    /** Plain HTTP for others than this host. */
    bool mInsecure = false;
    /** PEM files; empty: those of the state directory, which are made at first use. */
    std::string mCertificate;
    std::string mKey;
    /** Pages of other origins that may connect, such as "https://console.example". */
    std::vector<std::string> mOrigins;

    /** Whether nobody else than this host reaches the address. */
    [[nodiscard]] bool IsLocal() const { return mAddress.starts_with("127.") || mAddress == "::1"; }

    bool operator==(const WebSettings &) const = default;
};

/** Section [bluetooth]: how the watch shows itself to phones over the air. */
struct BluetoothSettings
{
    bool mEnabled = true;
    /** The adapter, such as "hci0"; empty for the first one that is powered. */
    std::string mAdapter;
    /** The name that is advertised; empty for the adapter's own. */
    std::string mName;
    /** Whether a phone must have been paired by a number that both sides showed or that was typed in. */
    bool mIsAuthenticated = false;

    bool operator==(const BluetoothSettings &) const = default;
};

/** What the configuration asks of the gateway; the defaults are those of an empty file. */
struct Settings
{
    /** Section [watch]: the run-time directory of the watch service, with its sockets. */
    std::string mWatchDirectory = "/run/parvane";
    WebSettings mWeb;
    /** Section [directories]: tokens and certificate; what is there for one run. */
    std::string mStateDirectory = "/var/lib/parvane-gateway";
    std::string mRuntimeDirectory = "/run/parvane-gateway";
    BluetoothSettings mBluetooth;

    bool operator==(const Settings &) const = default;
};

} // namespace ParvaneGateway
