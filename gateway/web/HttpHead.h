#pragma once

#include <libsoup/soup.h>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ParvaneGateway {

/** The head of one request: its first line and its headers. */
class HttpRequest
{
public:
    /** Of a head with the empty line that ends it; empty when it is none. */
    static std::optional<HttpRequest> Parse(const std::string &head);

    [[nodiscard]] const std::string &Method() const { return mMethod; }
    /** Without what follows a '?'. */
    [[nodiscard]] const std::string &Path() const { return mPath; }

    /** The value of a header; of several, with ", " between them; empty without. */
    [[nodiscard]] std::string Header(const char *name) const;

    /** Whether a header that is a list has that word, in whatever case. */
    [[nodiscard]] bool HasWord(const char *name, const char *word) const;

    /** Whether a body follows; none is ever read. */
    [[nodiscard]] bool HasBody() const;

    /** The token of "Authorization: Bearer"; empty without. */
    [[nodiscard]] std::string BearerToken() const;

    /** The value of a cookie; empty without. */
    [[nodiscard]] std::string Cookie(std::string_view name) const;

    /** Whether it asks for a WebSocket, well formed or not. */
    [[nodiscard]] bool IsUpgrade() const;

    /**
     * The status with which a request for a WebSocket of that subprotocol is refused; 101 when nothing
     * is wrong with it.
     */
    [[nodiscard]] int JudgeUpgrade(const char *protocol) const;

private:
    struct HeadersRelease
    {
        void operator()(SoupMessageHeaders *headers) const noexcept
        {
            soup_message_headers_unref(headers);
        }
    };

    std::string mMethod;
    std::string mPath;
    bool mIsHttp11 = false;
    std::unique_ptr<SoupMessageHeaders, HeadersRelease> mHeaders;
};

using HeaderList = std::vector<std::pair<std::string, std::string>>;

/**
 * A whole answer, with the headers that all have; the connection ends after it. Nobody stores it, unless
 * `headers` has a "Cache-Control".
 */
std::string MakeResponse(int status, const HeaderList &headers, std::string_view body);

/** The answer that opens a WebSocket. @param key  the request's Sec-WebSocket-Key */
std::string MakeUpgradeResponse(const std::string &key, const char *protocol);

} // namespace ParvaneGateway
