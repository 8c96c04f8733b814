#pragma once

#include <source_location>
#include <string_view>

namespace ParvaneGateway {

/**
 * One line of the gateway's log: an entry of the journal where standard error is connected to it, with
 * the place in the sources, else a line there. What comes from outside goes through Parvane::Printable()
 * first; a token is never part of it. Main-loop thread only.
 */
void LogInfo(std::string_view text,
             std::source_location place = std::source_location::current()) noexcept;
void LogWarning(std::string_view text,
                std::source_location place = std::source_location::current()) noexcept;
void LogError(std::string_view text,
              std::source_location place = std::source_location::current()) noexcept;

} // namespace ParvaneGateway
