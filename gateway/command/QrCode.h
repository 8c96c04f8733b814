#pragma once

#include <string>

namespace ParvaneGateway {

/** A QR code of a text for a terminal, in light and dark whatever its colours are; empty when it is too long. */
std::string QrCode(const std::string &text);

} // namespace ParvaneGateway
