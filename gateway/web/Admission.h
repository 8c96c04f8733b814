#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "Token.h"
#include "TokenStore.h"

namespace ParvaneGateway {

/**
 * Lets the bearers of tokens in: by the token itself, or by a cookie for which a browser has exchanged
 * it. Whoever has tried too many wrong ones has to wait. Main-loop thread only.
 */
class Admission
{
public:
    using Clock = std::chrono::steady_clock;

    /** Wrong tokens of one address within kWrongTime, after which it waits. */
    static constexpr std::size_t kMostWrong = 10;
    static constexpr std::chrono::seconds kWrongTime{60};
    /** Addresses whose wrong tokens are remembered: those that have tried last. */
    static constexpr std::size_t kMostAddresses = 1024;
    static constexpr std::size_t kMostSessions = 64;
    static constexpr std::chrono::hours kSessionTime{12};

    /** @param tokens  borrowed */
    explicit Admission(
        const TokenStore &tokens,
        std::function<Clock::time_point()> now = [] { return Clock::now(); })
        : mTokens(tokens), mNow(std::move(now))
    {}

    struct Judgement
    {
        /** 200, 401 or 429. */
        int mStatus = 0;
        std::optional<Token> mToken;
    };

    /** Of a request with that token, or else that cookie; each may be empty. */
    Judgement Judge(const std::string &address, const std::string &secret,
                    const std::string &cookie);

    /** A cookie that stands for the token, as long as that is there. The oldest of too many goes. */
    std::string MakeSession(const Token &token);

private:
    struct Session
    {
        std::string mCookieHash;
        std::string mTokenName;
        std::string mTokenHash;
        Clock::time_point mEnds;
    };

    bool MustWait(const std::string &address);
    void NoteWrong(const std::string &address);
    std::optional<Token> FindSession(const std::string &cookie);

    const TokenStore &mTokens;
    std::function<Clock::time_point()> mNow;
    std::map<std::string, std::deque<Clock::time_point>> mWrong;
    std::deque<Session> mSessions;
};

} // namespace ParvaneGateway
