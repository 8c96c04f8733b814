#include "WebTarget.h"

#include <algorithm>
#include <memory>

#include <glib.h>

namespace ParvaneHost {

namespace {

struct UriRelease
{
    void operator()(GUri *uri) const noexcept { g_uri_unref(uri); }
};

std::string TextOf(const char *text)
{
    return text == nullptr ? std::string() : text;
}

} // namespace

Result<WebTarget, std::string> ParseWebAddress(const std::string &text)
{
    constexpr std::uint16_t kPort = 8467;
    const std::unique_ptr<GUri, UriRelease> uri(
        g_uri_parse(text.c_str(), G_URI_FLAGS_NONE, nullptr));
    const std::string scheme = uri ? TextOf(g_uri_get_scheme(uri.get())) : std::string();
    if (scheme != "ws" && scheme != "wss") {
        return std::string(
            "give wss://HOST:PORT or ws://HOST:PORT of a gateway, or unix:PATH of a socket");
    }
    WebTarget target;
    target.mIsTls = scheme == "wss";
    target.mHost = TextOf(g_uri_get_host(uri.get()));
    if (!IsToken(target.mHost)) { // it goes into a line of the request
        return std::string("there is no host in it");
    }
    const std::string path = TextOf(g_uri_get_path(uri.get()));
    if ((!path.empty() && path != "/" && path != "/link") ||
        g_uri_get_query(uri.get()) != nullptr || g_uri_get_fragment(uri.get()) != nullptr ||
        g_uri_get_userinfo(uri.get()) != nullptr) {
        return std::string("nothing but the host and its port belongs into it");
    }
    const int port = g_uri_get_port(uri.get());
    if (port == 0) {
        return std::string("there is no port 0");
    }
    target.mPort = port < 0 ? kPort : static_cast<std::uint16_t>(port);
    const bool isNumber6 = target.mHost.find(':') != std::string::npos;
    target.mAddress = scheme + "://" + (isNumber6 ? '[' + target.mHost + ']' : target.mHost) + ':' +
                      std::to_string(target.mPort);
    return target;
}

std::optional<std::string> ParseFingerprint(const std::string &text)
{
    constexpr std::size_t kDigits = 64;
    std::string fingerprint;
    std::size_t digits = 0;
    for (const char letter : text) {
        if (letter == ':' && digits % 2 == 0) {
            continue;
        }
        if (g_ascii_isxdigit(letter) == FALSE) {
            return std::nullopt;
        }
        if (digits > 0 && digits % 2 == 0) {
            fingerprint += ':';
        }
        fingerprint += g_ascii_toupper(letter);
        ++digits;
    }
    return digits == kDigits ? std::optional(fingerprint) : std::nullopt;
}

bool IsToken(const std::string &text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char letter) {
        return g_ascii_isgraph(letter) != FALSE;
    });
}

} // namespace ParvaneHost
