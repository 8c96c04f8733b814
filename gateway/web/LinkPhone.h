#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Phone.h"
#include "PhoneSeat.h"
#include "WebClient.h"
#include "WebSocket.h"

namespace ParvaneGateway {

/** A phone on /link: one binary message is one packet, in both directions. */
class LinkPhone : public WebClient, private Phone, private Parvane::WebSocketEvents
{
public:
    static constexpr char kProtocol[] = "parvane.link.v1";

    /**
     * @param name      of its token
     * @param seat      borrowed for the life of the phone
     * @param onClosed  called when it is not needed any more, not inside the constructor
     */
    LinkPhone(std::unique_ptr<Parvane::WebStream> stream, std::string first,
              const Parvane::WebSocketTimes &times, std::string name, PhoneSeat &seat,
              std::function<void()> onClosed);
    ~LinkPhone() override;

    void Open() override;
    void End(Parvane::CloseCode code, const char *reason) override;

private:
    bool Deliver(PacketBytes packet) override;
    void GoOn() override;
    void Close(PhoneEnd why) override;
    [[nodiscard]] PhoneIdentity Identity() const override;
    void OnMessage(std::span<const std::uint8_t> message) override;
    void OnRoom() override;
    void OnEnd() override;
    void OnClosed() override;

    Parvane::WebSocket mSocket;
    std::string mName;
    PhoneSeat &mSeat;
    std::function<void()> mOnClosed;
};

} // namespace ParvaneGateway
