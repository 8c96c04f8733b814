#pragma once

#include <string_view>

namespace ParvaneGateway {

/**
 * One line of the gateway's log. What comes from outside goes through Parvane::Printable() first; a
 * token is never part of it. Any thread.
 */
void LogInfo(std::string_view text) noexcept;
void LogWarning(std::string_view text) noexcept;
void LogError(std::string_view text) noexcept;

} // namespace ParvaneGateway
