#include "Token.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <sys/random.h>
#include <system_error>

#include <glib.h>

#include "Printable.h"

namespace ParvaneGateway {

namespace {

using Json = nlohmann::json;

constexpr int kVersion = 1;
constexpr std::size_t kHashLength = 64;
constexpr std::array kScopes = {Scope::Phone, Scope::View, Scope::Control, Scope::Console};

bool IsHash(const std::string &text)
{
    return text.size() == kHashLength &&
           text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

Token TokenOf(const Json &object)
{
    const auto scope = ScopeOf(object.at("scope").get<std::string>());
    Token token{object.at("name").get<std::string>(), scope.value_or(Scope::Phone),
                object.at("sha256").get<std::string>(), object.at("created").get<std::int64_t>(),
                object.at("ends").get<std::int64_t>()};
    if (!scope || !IsTokenName(token.mName) || !IsHash(token.mHash) || token.mEnds < 0) {
        throw std::runtime_error("a token is not as it should be");
    }
    return token;
}

} // namespace

const char *NameOf(Scope scope)
{
    constexpr std::array kNames = {"phone", "view", "control", "console"};
    return kNames.at(static_cast<std::size_t>(scope));
}

std::optional<Scope> ScopeOf(std::string_view name)
{
    const auto *const found = std::find_if(kScopes.begin(), kScopes.end(),
                                           [name](Scope scope) { return name == NameOf(scope); });
    return found == kScopes.end() ? std::nullopt : std::optional(*found);
}

bool IsTokenName(const std::string &name)
{
    return !name.empty() && name.size() <= Token::kMostNameBytes &&
           Parvane::Printable(name) == name;
}

std::string HashOf(std::string_view secret)
{
    const std::unique_ptr<char, decltype(&g_free)> hash(
        g_compute_checksum_for_data(G_CHECKSUM_SHA256,
                                    reinterpret_cast<const guchar *>(secret.data()), secret.size()),
        g_free);
    return hash.get();
}

std::string MakeSecret()
{
    std::array<unsigned char, 32> bytes{};
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "getrandom");
    }
    const std::unique_ptr<char, decltype(&g_free)> text(g_base64_encode(bytes.data(), bytes.size()),
                                                        g_free);
    std::string secret = text.get();
    std::replace(secret.begin(), secret.end(), '+', '-');
    std::replace(secret.begin(), secret.end(), '/', '_');
    secret.erase(secret.find('='));
    return secret;
}

bool IsSame(std::string_view one, std::string_view other)
{
    if (one.size() != other.size()) {
        return false;
    }
    volatile unsigned difference = 0; // volatile: no comparison may end it early
    for (std::size_t i = 0; i < one.size(); ++i) {
        difference = difference | static_cast<unsigned char>(one[i] ^ other[i]);
    }
    return difference == 0;
}

std::string ToText(const std::vector<Token> &tokens)
{
    Json list = Json::array();
    for (const Token &token : tokens) {
        list.push_back({{"name", token.mName},
                        {"scope", NameOf(token.mScope)},
                        {"sha256", token.mHash},
                        {"created", token.mCreated},
                        {"ends", token.mEnds}});
    }
    return Json{{"version", kVersion}, {"tokens", list}}.dump(1) + '\n';
}

std::vector<Token> ParseTokens(std::string_view text)
{
    std::vector<Token> tokens;
    try {
        const Json file = Json::parse(text);
        if (file.at("version") != kVersion) {
            throw std::runtime_error("it is of another version");
        }
        for (const Json &object : file.at("tokens")) {
            Token token = TokenOf(object);
            for (const Token &other : tokens) {
                if (other.mName == token.mName) {
                    throw std::runtime_error("two tokens have one name");
                }
            }
            tokens.push_back(std::move(token));
        }
    } catch (const Json::exception &) {
        throw std::runtime_error("it is damaged"); // without the text, which is nobody's business
    }
    return tokens;
}

} // namespace ParvaneGateway
