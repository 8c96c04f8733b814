#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Result.h"

namespace ParvaneHost {

/** Where a watch's gateway is on the network, and what it is asked with. */
struct WebTarget
{
    std::string mAddress; // as people write it: wss://watch.local:8467
    std::string mHost;    // a name, or an address without brackets
    std::uint16_t mPort = 0;
    bool mIsTls = false;
    std::string mToken; // of the scope "phone"; printable, without blanks
    /**
     * SHA-256 of the certificate, as FingerprintOf() writes it: no other one will do. Empty: one that
     * the system trusts for that host.
     */
    std::string mFingerprint;
};

/**
 * Reads ws://HOST[:PORT] and wss://HOST[:PORT]; the path /link may follow, and is what is meant. The port is 8467 unless
 * told. Token and fingerprint stay empty.
 *
 * @return what is wrong with it, for people, where it is none
 */
Result<WebTarget, std::string> ParseWebAddress(const std::string &text);

/** Reads 64 hexadecimal digits, with or without ':' between pairs. Nothing for other texts. */
std::optional<std::string> ParseFingerprint(const std::string &text);

/** Whether it can be sent: not empty, printable ASCII, no blank. */
bool IsToken(const std::string &text);

} // namespace ParvaneHost
