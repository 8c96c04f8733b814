#pragma once

#include <string>

#include <gio/gio.h>

namespace Parvane {

/** SHA-256 of the certificate: 32 pairs of upper-case digits with ':' between them. */
std::string FingerprintOf(GTlsCertificate *certificate);

} // namespace Parvane
