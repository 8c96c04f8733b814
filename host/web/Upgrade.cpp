#include "Upgrade.h"

#include <array>
#include <charconv>
#include <string_view>
#include <sys/random.h>

#include "AcceptKey.h"
#include "ObjectPtr.h"

namespace ParvaneHost {

namespace {

constexpr char kProtocol[] = "parvane.link.v1";

using Reason = LinkError::Reason;

LinkError CannotConnect(const WebTarget &target, const std::string &why, bool isFinal)
{
    return {Reason::CannotConnect, 0, target.mAddress,
            "cannot connect to " + target.mAddress + ": " + why, isFinal};
}

bool IsNamed(std::string_view line, std::string_view name)
{
    return line.size() > name.size() && line[name.size()] == ':' &&
           g_ascii_strncasecmp(line.data(), name.data(), name.size()) == 0;
}

/** The value of a header, without blanks around it; empty without. */
std::string HeaderOf(std::string_view head, std::string_view name)
{
    for (std::size_t begin = head.find("\r\n"); begin != std::string_view::npos;
         begin = head.find("\r\n", begin)) {
        begin += 2;
        const std::string_view line = head.substr(begin, head.find("\r\n", begin) - begin);
        if (IsNamed(line, name)) {
            const std::string value(line.substr(name.size() + 1));
            const std::size_t first = value.find_first_not_of(" \t");
            return first == std::string::npos
                       ? std::string()
                       : value.substr(first, value.find_last_not_of(" \t") + 1 - first);
        }
    }
    return {};
}

/** Of "HTTP/1.1 401 Unauthorized", or of 1.0; 0 for what is none. */
int StatusOf(std::string_view head)
{
    constexpr std::string_view kVersion = "HTTP/1.";
    constexpr std::size_t kStatus = kVersion.size() + 2;
    constexpr std::size_t kDigits = 3;
    int status = 0;
    if (head.starts_with(kVersion) && head.size() > kStatus + kDigits) {
        const char *digits = head.data() + kStatus;
        std::from_chars(digits, digits + kDigits, status);
    }
    return status;
}

LinkError ErrorOfStatus(int status, const WebTarget &target)
{
    constexpr int kUnauthorized = 401;
    constexpr int kForbidden = 403;
    constexpr int kUpgradeRequired = 426;
    constexpr int kTooMany = 429;
    constexpr int kFirstOfServer = 500;
    switch (status) {
    case kUnauthorized:
        return CannotConnect(target, "the gateway does not know the token, or its time is over",
                             true);
    case kForbidden:
        return CannotConnect(target, "the token is none for phones", true);
    case kUpgradeRequired:
        return CannotConnect(target, "the gateway wants wss:// there", true);
    case kTooMany:
        return CannotConnect(
            target, "too many wrong tokens came from here: the gateway waits a minute", false);
    default:
        return CannotConnect(target,
                             "what answers there is no gateway of a watch (status " +
                                 std::to_string(status) + ")",
                             status < kFirstOfServer);
    }
}

} // namespace

std::string MakeKey()
{
    std::array<guchar, 16> chance{};
    [[maybe_unused]] const auto ignored = ::getrandom(chance.data(), chance.size(), GRND_NONBLOCK);
    return Parvane::GlibText(g_base64_encode(chance.data(), chance.size())).get();
}

std::string MakeUpgradeRequest(const WebTarget &target, const std::string &key)
{
    const std::string host = target.mAddress.substr(target.mAddress.find("//") + 2);
    return "GET /link HTTP/1.1\r\n"
           "Host: " +
           host +
           "\r\n"
           "Upgrade: websocket\r\n"
           "Connection: Upgrade\r\n"
           "Sec-WebSocket-Version: 13\r\n"
           "Sec-WebSocket-Key: " +
           key +
           "\r\n"
           "Sec-WebSocket-Protocol: " +
           kProtocol +
           "\r\n"
           "Authorization: Bearer " +
           target.mToken + "\r\n\r\n";
}

std::optional<LinkError> JudgeAnswer(const std::string &head, const std::string &key,
                                     const WebTarget &target)
{
    constexpr int kSwitching = 101;
    const int status = StatusOf(head);
    if (status != kSwitching) {
        return ErrorOfStatus(status, target);
    }
    if (HeaderOf(head, "Sec-WebSocket-Accept") != Parvane::AcceptOf(key) ||
        HeaderOf(head, "Sec-WebSocket-Protocol") != kProtocol) {
        return CannotConnect(target, "what answers there does not speak " + std::string(kProtocol),
                             true);
    }
    return std::nullopt;
}

LinkError ErrorOfCode(Parvane::CloseCode code, bool wasOpen, const WebTarget &target)
{
    using Parvane::CloseCode;
    const auto ended = [&](Reason reason, const std::string &why, bool isFinal) {
        return LinkError{reason, 0, target.mAddress,
                         "the gateway closed the link " + target.mAddress + ": " + why, isFinal};
    };
    if (code == CloseCode::AnotherPhone) {
        return ended(Reason::AnotherHost, "another phone is connected", false);
    }
    if (code == CloseCode::WatchAway) {
        return ended(wasOpen ? Reason::Closed : Reason::CannotConnect,
                     "the watch service is not running, or does not let the gateway in", false);
    }
    if (code == CloseCode::TokenEnded) {
        return ended(Reason::Closed, "the token has ended", true);
    }
    return ended(Reason::Closed,
                 code == CloseCode::GoingAway ? "it ends"
                                              : "code " + std::to_string(static_cast<int>(code)),
                 false);
}

} // namespace ParvaneHost
