#include "TokenStore.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/inotify.h>

#include "ErrnoText.h"
#include "Log.h"
#include "PrivateFile.h"
#include "RegularFile.h"

namespace ParvaneGateway {

std::vector<Token> TokenFile::Load() const
{
    std::string text;
    const int error = Parvane::ReadWholeFile(mPath, kMostBytes, text);
    if (error == ENOENT) {
        return {};
    }
    if (error != 0) {
        throw std::runtime_error("cannot read " + mPath + ": " + Parvane::ErrnoText(error));
    }
    try {
        return ParseTokens(text);
    } catch (const std::runtime_error &failure) {
        throw std::runtime_error("cannot read " + mPath + ": " + failure.what());
    }
}

void TokenFile::Save(const std::vector<Token> &tokens) const
{
    ReplacePrivateFile(mPath, ToText(tokens));
}

std::string TokenFile::Add(const std::string &name, Scope scope, std::int64_t ends) const
{
    const Parvane::UniqueFd lock = Lock();
    std::vector<Token> tokens = Load();
    if (std::any_of(tokens.begin(), tokens.end(),
                    [&name](const Token &token) { return token.mName == name; })) {
        throw std::runtime_error("there is a token of that name already; 'parvane-gateway token "
                                 "remove' ends it");
    }
    if (tokens.size() >= kMostTokens) {
        throw std::runtime_error("there are " + std::to_string(kMostTokens) + " tokens already");
    }
    std::string secret = MakeSecret();
    tokens.push_back({name, scope, HashOf(secret), std::time(nullptr), ends});
    Save(tokens);
    return secret;
}

bool TokenFile::Remove(const std::string &name) const
{
    const Parvane::UniqueFd lock = Lock();
    std::vector<Token> tokens = Load();
    if (std::erase_if(tokens, [&name](const Token &token) { return token.mName == name; }) == 0) {
        return false;
    }
    Save(tokens);
    return true;
}

Parvane::UniqueFd TokenFile::Lock() const
{
    const std::string folder = mPath.substr(0, mPath.rfind('/'));
    Parvane::UniqueFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd || ::flock(fd.Get(), LOCK_EX) != 0) {
        throw std::runtime_error("cannot use " + folder + ": " + Parvane::ErrnoText(errno));
    }
    return fd;
}

TokenStore::TokenStore(const std::string &stateDirectory) : mFile(stateDirectory)
{
    Watch(stateDirectory); // first, so that no change is missed
    Load();
}

std::optional<Token> TokenStore::Find(std::string_view secret) const
{
    const std::string hash = HashOf(secret);
    const Token *found = nullptr;
    for (const Token &token : mTokens) {
        found = IsSame(token.mHash, hash) ? &token : found;
    }
    return found == nullptr || found->HasEnded(std::time(nullptr)) ? std::nullopt
                                                                   : std::optional(*found);
}

std::optional<Token> TokenStore::Find(const std::string &name, const std::string &hash) const
{
    for (const Token &token : mTokens) {
        if (token.mName == name && IsSame(token.mHash, hash) &&
            !token.HasEnded(std::time(nullptr))) {
            return token;
        }
    }
    return std::nullopt;
}

void TokenStore::Watch(const std::string &stateDirectory)
{
    mWatch.Reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!mWatch || ::inotify_add_watch(mWatch.Get(), stateDirectory.c_str(),
                                       IN_MOVED_TO | IN_DELETE | IN_CLOSE_WRITE) < 0) {
        throw std::runtime_error("cannot watch " + stateDirectory + ": " +
                                 Parvane::ErrnoText(errno));
    }
    mSource = Parvane::LoopSource::WatchFd(mWatch.Get(), G_IO_IN, [this] { OnFolderChanged(); });
}

void TokenStore::OnFolderChanged()
{
    alignas(inotify_event) std::array<char, 4096> events{};
    while (::read(mWatch.Get(), events.data(), events.size()) > 0) {
    }
    const std::vector<Token> before = mTokens;
    Load();
    if (mTokens != before && mListener) {
        mListener();
    }
}

void TokenStore::Load()
{
    try {
        mTokens = mFile.Load();
    } catch (const std::runtime_error &failure) {
        Parvane::LogError(std::string(failure.what()) + "; nobody is let in");
        mTokens.clear();
    }
}

} // namespace ParvaneGateway
