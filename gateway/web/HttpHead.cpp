#include "HttpHead.h"

#include <algorithm>

#include "AcceptKey.h"
#include "ObjectPtr.h"

namespace ParvaneGateway {

namespace {

constexpr std::size_t kKeyBytes = 16;

/** The console loads nothing from elsewhere, and nobody frames it. */
constexpr char kSecurityHeaders[] =
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "X-Frame-Options: DENY\r\n"
    "Referrer-Policy: no-referrer\r\n";

bool IsKey(const std::string &key)
{
    constexpr std::size_t kTextLength = 24;
    if (key.size() != kTextLength) {
        return false;
    }
    gsize size = 0;
    const std::unique_ptr<guchar, Parvane::Released<g_free>> bytes(
        g_base64_decode(key.c_str(), &size));
    return size == kKeyBytes;
}

/** libsoup has none for the newer ones. */
const char *PhraseOf(int status)
{
    switch (status) {
    case 426:
        return "Upgrade Required";
    case 429:
        return "Too Many Requests";
    case 431:
        return "Request Header Fields Too Large";
    default:
        return soup_status_get_phrase(static_cast<guint>(status));
    }
}

} // namespace

std::optional<HttpRequest> HttpRequest::Parse(const std::string &head)
{
    // A zero byte would end what the parser sees, and a line that begins with a blank continues another.
    if (!head.ends_with("\r\n\r\n") || head.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    HttpRequest request;
    request.mHeaders.reset(soup_message_headers_new(SOUP_MESSAGE_HEADERS_REQUEST));
    char *method = nullptr;
    char *path = nullptr;
    SoupHTTPVersion version = SOUP_HTTP_1_0;
    const guint status =
        soup_headers_parse_request(head.c_str(), static_cast<int>(head.size() - 2),
                                   request.mHeaders.get(), &method, &path, &version);
    const Parvane::GlibText ownedMethod(method);
    const Parvane::GlibText ownedPath(path);
    if (status != SOUP_STATUS_OK || method == nullptr || path == nullptr) {
        return std::nullopt;
    }
    request.mMethod = method;
    request.mPath = path;
    request.mPath.resize(std::min(request.mPath.find('?'), request.mPath.size()));
    request.mIsHttp11 = version == SOUP_HTTP_1_1;
    return request;
}

std::string HttpRequest::Header(const char *name) const
{
    const char *value = soup_message_headers_get_list(mHeaders.get(), name);
    return value == nullptr ? "" : value;
}

bool HttpRequest::HasWord(const char *name, const char *word) const
{
    return soup_message_headers_header_contains(mHeaders.get(), name, word) != FALSE;
}

bool HttpRequest::HasBody() const
{
    const std::string length = Header("Content-Length");
    return (!length.empty() && length != "0") || !Header("Transfer-Encoding").empty();
}

std::string HttpRequest::BearerToken() const
{
    constexpr std::string_view kScheme = "bearer ";
    const std::string value = Header("Authorization");
    if (value.size() < kScheme.size() ||
        g_ascii_strncasecmp(value.c_str(), kScheme.data(), kScheme.size()) != 0) {
        return {};
    }
    return value.substr(std::min(value.find_first_not_of(' ', kScheme.size()), value.size()));
}

std::string HttpRequest::Cookie(std::string_view name) const
{
    const std::string value = Header("Cookie");
    std::string_view rest = value;
    while (!rest.empty()) {
        std::string_view part = rest.substr(0, rest.find(';'));
        rest.remove_prefix(std::min(part.size() + 1, rest.size()));
        part.remove_prefix(std::min(part.find_first_not_of(' '), part.size()));
        if (part.size() > name.size() && part.starts_with(name) && part[name.size()] == '=') {
            return std::string(part.substr(name.size() + 1));
        }
    }
    return {};
}

bool HttpRequest::IsUpgrade() const
{
    return HasWord("Upgrade", "websocket");
}

int HttpRequest::JudgeUpgrade(const char *protocol) const
{
    if (mMethod != "GET") {
        return SOUP_STATUS_METHOD_NOT_ALLOWED;
    }
    if (!IsUpgrade() || Header("Sec-WebSocket-Version") != "13") {
        constexpr int kUpgradeRequired = 426;
        return kUpgradeRequired;
    }
    const bool isWhole = mIsHttp11 && HasWord("Connection", "Upgrade") &&
                         IsKey(Header("Sec-WebSocket-Key")) && !Header("Host").empty() &&
                         HasWord("Sec-WebSocket-Protocol", protocol) && !HasBody();
    return isWhole ? SOUP_STATUS_SWITCHING_PROTOCOLS : SOUP_STATUS_BAD_REQUEST;
}

std::string MakeResponse(int status, const HeaderList &headers, std::string_view body)
{
    std::string text = "HTTP/1.1 " + std::to_string(status) + ' ' + PhraseOf(status) + "\r\n";
    for (const auto &[name, value] : headers) {
        text.append(name).append(": ").append(value).append("\r\n");
    }
    text += kSecurityHeaders;
    const bool isStored = std::any_of(headers.begin(), headers.end(), [](const auto &header) {
        return header.first == "Cache-Control";
    });
    text += isStored ? "" : "Cache-Control: no-store\r\n";
    text += "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
    return text.append(body);
}

std::string MakeUpgradeResponse(const std::string &key, const char *protocol)
{
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           "Sec-WebSocket-Accept: " +
           Parvane::AcceptOf(key) + "\r\nSec-WebSocket-Protocol: " + protocol + "\r\n\r\n";
}

} // namespace ParvaneGateway
