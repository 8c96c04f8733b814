#include "Admission.h"

#include <algorithm>

namespace ParvaneGateway {

Admission::Judgement Admission::Judge(const std::string &address, const std::string &secret,
                                      const std::string &cookie)
{
    constexpr int kOk = 200;
    constexpr int kUnauthorized = 401;
    constexpr int kTooMany = 429;
    if (MustWait(address)) {
        return {kTooMany,
                std::nullopt}; // a right token, too: else waiting would tell which is right
    }
    auto token = secret.empty() ? FindSession(cookie) : mTokens.Find(secret);
    if (!token && !secret.empty()) {
        NoteWrong(address);
    }
    const int status = token ? kOk : kUnauthorized;
    return {status, std::move(token)};
}

std::string Admission::MakeSession(const Token &token)
{
    std::string cookie = MakeSecret();
    mSessions.push_back({HashOf(cookie), token.mName, token.mHash, mNow() + kSessionTime});
    if (mSessions.size() > kMostSessions) {
        mSessions.pop_front();
    }
    return cookie;
}

bool Admission::MustWait(const std::string &address)
{
    const auto found = mWrong.find(address);
    if (found == mWrong.end()) {
        return false;
    }
    std::erase_if(found->second, [this](auto time) { return mNow() - time >= kWrongTime; });
    if (found->second.empty()) {
        mWrong.erase(found);
        return false;
    }
    return found->second.size() >= kMostWrong;
}

void Admission::NoteWrong(const std::string &address)
{
    mWrong[address].push_back(mNow());
    if (mWrong.size() > kMostAddresses) {
        mWrong.erase(std::min_element(mWrong.begin(), mWrong.end(), [](auto &one, auto &other) {
            return one.second.back() < other.second.back();
        }));
    }
}

std::optional<Token> Admission::FindSession(const std::string &cookie)
{
    std::erase_if(mSessions, [this](const Session &session) { return mNow() >= session.mEnds; });
    const std::string hash = HashOf(cookie);
    const Session *found = nullptr;
    for (const Session &session : mSessions) {
        found = IsSame(session.mCookieHash, hash) ? &session : found;
    }
    return found == nullptr ? std::nullopt : mTokens.Find(found->mTokenName, found->mTokenHash);
}

} // namespace ParvaneGateway
