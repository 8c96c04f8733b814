#include <stdexcept>
#include <string>
#include <vector>

#include "ConfigFile.h"
#include "Input.h"
#include "Require.h"
#include "Token.h"

// The gateway's files: any bytes as its tokens, and as its configuration.

using namespace ParvaneGateway;
using ParvaneFuzz::Require;

namespace {

void ReadTokens(std::string_view text)
{
    std::vector<Token> tokens;
    try {
        tokens = ParseTokens(text);
    } catch (const std::runtime_error &) {
        return;
    }
    for (const Token &token : tokens) {
        Require(IsTokenName(token.mName), "a token has a name");
        Require(token.mHash.size() == 64, "a token has a hash");
    }
    Require(ParseTokens(ToText(tokens)) == tokens, "tokens that are written are read again");
}

void ReadConfiguration(const std::string &text)
{
    const Configuration configuration = ParseConfiguration(text);
    const WebSettings &web = configuration.mSettings.mWeb;
    if (configuration.FirstError() == nullptr) {
        Require(web.mPort >= 0 && web.mPort <= 65535, "a port is one");
        Require(web.mTls || web.mInsecure || !web.mEnabled || web.mAddress.starts_with("127.") ||
                    web.mAddress == "::1",
                "what others reach has TLS, unless it was said otherwise");
    }
    for (const ConfigProblem &problem : configuration.mProblems) {
        Require(ToString("file", problem).find('\n') == std::string::npos, "a problem is one line");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(ParvaneFuzz::TextOf(data, size));
    ReadTokens(text);
    ReadConfiguration(text);
    return 0;
}
