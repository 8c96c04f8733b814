#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ParvaneGateway {

/** What a token lets its bearer do. */
enum class Scope {
    /** Be the phone: /link. */
    Phone,
    /** Look into the service: /control, without what changes anything. */
    View,
    /** Look into it and steer it: /control. */
    Control,
    /** Be the phone and look into it and steer it, as the console does: both. */
    Console
};

/** "phone", "view", "control" or "console". */
const char *NameOf(Scope scope);
std::optional<Scope> ScopeOf(std::string_view name);

/** Who is let in. The secret itself is nowhere: only its hash is kept. */
struct Token
{
    static constexpr std::size_t kMostNameBytes = 64;

    /** 1 to kMostNameBytes bytes of printable UTF-8; no two tokens have the same. */
    std::string mName;
    Scope mScope = Scope::Phone;
    /** SHA-256 of the secret, 64 lower-case hexadecimal digits. */
    std::string mHash;
    /** Seconds since 1970. */
    std::int64_t mCreated = 0;
    /** The same; 0 for no end. */
    std::int64_t mEnds = 0;

    [[nodiscard]] bool HasEnded(std::int64_t now) const { return mEnds != 0 && now >= mEnds; }

    bool operator==(const Token &) const = default;
};

/** A name that a token may have. */
bool IsTokenName(const std::string &name);

/** The hash of a secret. */
std::string HashOf(std::string_view secret);

/** 256 bits of chance, as 43 letters, digits, '-' and '_'. @throws std::system_error */
std::string MakeSecret();

/** Whether two texts of the same length are the same, in a time that does not depend on where they differ. */
bool IsSame(std::string_view one, std::string_view other);

/** The text of a file with these tokens. */
std::string ToText(const std::vector<Token> &tokens);

/** @throws std::runtime_error that says what is wrong with the text */
std::vector<Token> ParseTokens(std::string_view text);

} // namespace ParvaneGateway
