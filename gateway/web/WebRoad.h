#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "Certificate.h"
#include "LoopSource.h"
#include "ObjectPtr.h"
#include "Road.h"
#include "UniqueFd.h"
#include "WebConnection.h"
#include "WebContext.h"

namespace ParvaneGateway {

/** The network: WebSockets on one address, over TLS or plain. */
class WebRoad : public Road
{
public:
    static constexpr std::size_t kMostConnections = 64;
    /** Of one address that nobody knows yet; of one network of 64 bits with IPv6. */
    static constexpr std::size_t kMostUnknown = 8;
    /** The same with those that are served: a tab of the console has four WebSockets, and two tabs are no hostility. */
    static constexpr std::size_t kMostOfAddress = 24;

    /** @param settings  borrowed, as are the seat and the tokens, whose listener this becomes */
    WebRoad(const Settings &settings, PhoneSeat &seat, TokenStore &tokens, const WebTimes &times);

    void Open() override;
    void Shut() override;
    [[nodiscard]] bool IsShut() const override { return mConnections.empty(); }

    [[nodiscard]] const char *Name() const override { return "web"; }
    [[nodiscard]] nlohmann::json Status() const override;

    /** Once it is open; for tests, whose port is a free one. */
    [[nodiscard]] int Port() const { return mPort; }

private:
    /** For people. */
    std::string Text() const;
    void LoadTls();
    void Listen();
    void OnAcceptable();
    [[nodiscard]] bool IsCrowded(const std::string &network) const;
    void Take(Parvane::UniqueFd fd, const std::string &address);
    void Sweep();

    const WebSettings &mSettings;
    std::string mStateDirectory;
    TokenStore &mTokens;
    Parvane::ObjectPtr<GTlsCertificate> mCertificate;
    WebContext mContext;
    int mPort = 0;
    Parvane::UniqueFd mListener;
    Parvane::LoopSource mSource;
    Parvane::LoopSource mPause;
    Parvane::LoopSource mSweep;

    struct Entry
    {
        std::string mNetwork;
        std::shared_ptr<WebConnection> mConnection;
        bool mIsGone = false;
    };
    std::list<Entry> mConnections;
};

} // namespace ParvaneGateway
