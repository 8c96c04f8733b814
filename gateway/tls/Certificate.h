#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "ObjectPtr.h"

namespace ParvaneGateway {

/** A certificate and its key, as PEM. */
struct CertificateText
{
    std::string mCertificate;
    std::string mKey;
};

/**
 * A certificate that signs itself, for TLS servers of these names and addresses, for ten years, with a key on the curve
 * P-256. @throws std::runtime_error
 */
CertificateText MakeCertificate(const std::vector<std::string> &names);

/** When a certificate of `now` ends, in ten years; at the `latest` of the system's times where that is sooner. */
std::int64_t CertificateEnd(std::int64_t now, std::int64_t latest);

/** The host's name, "localhost", and the addresses of its interfaces and of `address`. */
std::vector<std::string> HostNames(const std::string &address);

/**
 * The certificate of two files. When neither is there and `mayMake`, they are made, the key of mode 0600.
 *
 * @throws std::runtime_error that names the file and the reason
 */
Parvane::ObjectPtr<GTlsCertificate> LoadCertificate(const std::string &certificateFile,
                                                    const std::string &keyFile,
                                                    const std::vector<std::string> &names,
                                                    bool mayMake);

} // namespace ParvaneGateway
