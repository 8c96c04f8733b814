#pragma once

#include <nlohmann/json_fwd.hpp>

namespace ParvaneGateway {

/**
 * One of the ways on which phones come: it lets them in and seats them. Made with the PhoneSeat that is
 * borrowed for its life. Main-loop thread only.
 */
class Road
{
public:
    /** Ends whatever is left at once. */
    virtual ~Road() = default;

    /**
     * Phones may come from now on. What can come later (a network address, a Bluetooth service) and is
     * not there is waited for, and is no failure.
     *
     * @throws std::runtime_error when the road cannot be served at all; the gateway ends
     */
    virtual void Open() = 0;

    /** Nobody comes any more; the seat has closed its phone with PhoneEnd::Stopping. */
    virtual void Shut() = 0;

    /** Its name in the status: "web", "bluetooth". */
    [[nodiscard]] virtual const char *Name() const = 0;

    /**
     * What `status` tells of it: an object, with "text", one line for people; "refusals", an object of
     * counts by reason, is put together with those of the others.
     */
    [[nodiscard]] virtual nlohmann::json Status() const = 0;

    /** Whether all that was to be told to phones on their end is on its way. */
    [[nodiscard]] virtual bool IsShut() const = 0;
};

} // namespace ParvaneGateway
