#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "LoopSource.h"
#include "Token.h"
#include "UniqueFd.h"

namespace ParvaneGateway {

/** The file "tokens" of the state directory: mode 0600, replaced whole. */
class TokenFile
{
public:
    static constexpr char kName[] = "tokens";
    static constexpr std::size_t kMostBytes = 1048576;
    static constexpr std::size_t kMostTokens = 1000;

    explicit TokenFile(const std::string &stateDirectory) : mPath(stateDirectory + '/' + kName) {}

    /** The tokens; none without a file. @throws std::runtime_error that names the file */
    [[nodiscard]] std::vector<Token> Load() const;

    /** @throws std::runtime_error that names the file */
    void Save(const std::vector<Token> &tokens) const;

    /**
     * Adds one, made now, with others kept out meanwhile.
     *
     * @return the secret, which is nowhere else
     * @throws std::runtime_error also when the name is taken, or there are too many
     */
    [[nodiscard]] std::string Add(const std::string &name, Scope scope, std::int64_t ends) const;

    /** @return false when there is none of that name. @throws std::runtime_error */
    [[nodiscard]] bool Remove(const std::string &name) const;

private:
    [[nodiscard]] Parvane::UniqueFd Lock() const;

    std::string mPath;
};

/**
 * The tokens as the running gateway has them: read anew when the file changes, at once. A file that
 * cannot be read lets nobody in. Main-loop thread only.
 */
class TokenStore
{
public:
    /** @param stateDirectory  exists */
    explicit TokenStore(const std::string &stateDirectory);

    TokenStore(const TokenStore &) = delete;
    TokenStore &operator=(const TokenStore &) = delete;

    /** The token whose secret it is, if it has not ended; every token is compared, whichever it is. */
    [[nodiscard]] std::optional<Token> Find(std::string_view secret) const;

    /** The token of that name and hash, if it is there and has not ended. */
    [[nodiscard]] std::optional<Token> Find(const std::string &name, const std::string &hash) const;

    /** Called when the tokens have changed. */
    void SetListener(std::function<void()> listener) { mListener = std::move(listener); }

private:
    void Watch(const std::string &stateDirectory);
    void OnFolderChanged();
    void Load();

    TokenFile mFile;
    std::vector<Token> mTokens;
    std::function<void()> mListener;
    Parvane::UniqueFd mWatch;
    Parvane::LoopSource mSource;
};

} // namespace ParvaneGateway
