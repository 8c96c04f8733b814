#include "Certificate.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <ctime>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <ifaddrs.h>
#include <limits>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/random.h>
#include <unistd.h>

#include "ErrnoText.h"
#include "PrivateFile.h"
#include "RegularFile.h"

namespace ParvaneGateway {

namespace {

constexpr std::size_t kMostFileBytes = 65536;
constexpr std::time_t kDayS = 86400;

struct KeyRelease
{
    void operator()(gnutls_x509_privkey_t key) const noexcept { gnutls_x509_privkey_deinit(key); }
};
struct CertificateRelease
{
    void operator()(gnutls_x509_crt_t certificate) const noexcept
    {
        gnutls_x509_crt_deinit(certificate);
    }
};
using Key = std::unique_ptr<gnutls_x509_privkey_int, KeyRelease>;
using OwnCertificate = std::unique_ptr<gnutls_x509_crt_int, CertificateRelease>;

void Check(int result)
{
    if (result < 0) {
        throw std::runtime_error(std::string("cannot make a certificate: ") +
                                 gnutls_strerror(result));
    }
}

template <typename Export>
std::string Pem(Export exportPem)
{
    gnutls_datum_t text{};
    Check(exportPem(&text));
    const std::unique_ptr<unsigned char, decltype(gnutls_free)> owned(text.data, gnutls_free);
    return {reinterpret_cast<const char *>(text.data), text.size};
}

void AddName(gnutls_x509_crt_t certificate, const std::string &name)
{
    std::array<unsigned char, sizeof(in6_addr)> address{};
    if (::inet_pton(AF_INET, name.c_str(), address.data()) == 1) {
        Check(gnutls_x509_crt_set_subject_alt_name(certificate, GNUTLS_SAN_IPADDRESS,
                                                   address.data(), sizeof(in_addr),
                                                   GNUTLS_FSAN_APPEND));
    } else if (::inet_pton(AF_INET6, name.c_str(), address.data()) == 1) {
        Check(gnutls_x509_crt_set_subject_alt_name(certificate, GNUTLS_SAN_IPADDRESS,
                                                   address.data(), sizeof(in6_addr),
                                                   GNUTLS_FSAN_APPEND));
    } else {
        Check(gnutls_x509_crt_set_subject_alt_name(certificate, GNUTLS_SAN_DNSNAME, name.data(),
                                                   static_cast<unsigned>(name.size()),
                                                   GNUTLS_FSAN_APPEND));
    }
}

void Describe(gnutls_x509_crt_t certificate)
{
    constexpr char kSubject[] = "Parvane gateway";
    std::array<unsigned char, 16> serial{};
    if (::getrandom(serial.data(), serial.size(), 0) != static_cast<ssize_t>(serial.size())) {
        throw std::runtime_error("cannot make a certificate: no random numbers");
    }
    serial[0] &= 0x7FU; // a positive number
    const std::time_t now = std::time(nullptr);
    Check(gnutls_x509_crt_set_version(certificate, 3));
    Check(gnutls_x509_crt_set_serial(certificate, serial.data(), serial.size()));
    // A watch's clock may be behind the phone's.
    Check(gnutls_x509_crt_set_activation_time(certificate, now - kDayS));
    Check(gnutls_x509_crt_set_expiration_time(
        certificate,
        static_cast<std::time_t>(CertificateEnd(now, std::numeric_limits<std::time_t>::max()))));
    Check(gnutls_x509_crt_set_dn_by_oid(certificate, GNUTLS_OID_X520_COMMON_NAME, 0, kSubject,
                                        sizeof kSubject - 1));
    Check(gnutls_x509_crt_set_basic_constraints(certificate, 0, -1));
    Check(gnutls_x509_crt_set_key_usage(certificate, GNUTLS_KEY_DIGITAL_SIGNATURE));
    Check(gnutls_x509_crt_set_key_purpose_oid(certificate, GNUTLS_KP_TLS_WWW_SERVER, 0));
}

std::string AddressText(const sockaddr *address)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    const void *bytes = address; // of its family's own type and alignment
    if (address != nullptr && address->sa_family == AF_INET) {
        const auto *v4 = static_cast<const sockaddr_in *>(bytes);
        ::inet_ntop(AF_INET, &v4->sin_addr, text.data(), text.size());
    } else if (address != nullptr && address->sa_family == AF_INET6) {
        const auto *v6 = static_cast<const sockaddr_in6 *>(bytes);
        ::inet_ntop(AF_INET6, &v6->sin6_addr, text.data(), text.size());
    }
    return text.data();
}

/** What is wrong with a certificate and a key together; empty when nothing is. */
std::string Mismatch(CertificateText &text)
{
    gnutls_certificate_credentials_t raw = nullptr;
    Check(gnutls_certificate_allocate_credentials(&raw));
    const std::unique_ptr<gnutls_certificate_credentials_st,
                          decltype(&gnutls_certificate_free_credentials)>
        owned(raw, gnutls_certificate_free_credentials);
    const auto datum = [](std::string &part) {
        return gnutls_datum_t{reinterpret_cast<unsigned char *>(part.data()),
                              static_cast<unsigned>(part.size())};
    };
    const gnutls_datum_t certificate = datum(text.mCertificate);
    const gnutls_datum_t key = datum(text.mKey);
    const int result =
        gnutls_certificate_set_x509_key_mem(raw, &certificate, &key, GNUTLS_X509_FMT_PEM);
    return result < 0 ? gnutls_strerror(result) : "";
}

int ReadPart(const std::string &path, std::string &text)
{
    const int error = Parvane::ReadWholeFile(path, kMostFileBytes, text);
    if (error != 0 && error != ENOENT) {
        throw std::runtime_error("cannot read " + path + ": " + Parvane::ErrnoText(error));
    }
    return error;
}

} // namespace

std::int64_t CertificateEnd(std::int64_t now, std::int64_t latest)
{
    constexpr std::int64_t kYears = 3650 * std::int64_t{kDayS};
    return now > latest - kYears ? latest : now + kYears;
}

CertificateText MakeCertificate(const std::vector<std::string> &names)
{
    gnutls_x509_privkey_t rawKey = nullptr;
    Check(gnutls_x509_privkey_init(&rawKey));
    const Key key(rawKey);
    Check(gnutls_x509_privkey_generate(rawKey, GNUTLS_PK_ECDSA,
                                       GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0));
    gnutls_x509_crt_t raw = nullptr;
    Check(gnutls_x509_crt_init(&raw));
    const OwnCertificate certificate(raw);
    Describe(raw);
    for (const std::string &name : names) {
        AddName(raw, name);
    }
    Check(gnutls_x509_crt_set_key(raw, rawKey));
    Check(gnutls_x509_crt_sign2(raw, raw, rawKey, GNUTLS_DIG_SHA256, 0));
    return {Pem([raw](gnutls_datum_t *text) {
                return gnutls_x509_crt_export2(raw, GNUTLS_X509_FMT_PEM, text);
            }),
            Pem([rawKey](gnutls_datum_t *text) {
                return gnutls_x509_privkey_export2_pkcs8(rawKey, GNUTLS_X509_FMT_PEM, nullptr,
                                                         GNUTLS_PKCS_PLAIN, text);
            })};
}

std::vector<std::string> HostNames(const std::string &address)
{
    std::vector<std::string> names = {"localhost", "127.0.0.1", "::1"};
    const auto add = [&names](const std::string &name) {
        if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(name);
        }
    };
    std::array<char, 256> host{};
    if (::gethostname(host.data(), host.size() - 1) == 0) {
        add(host.data());
    }
    if (address != "0.0.0.0" && address != "::") {
        add(address);
    }
    ifaddrs *first = nullptr;
    if (::getifaddrs(&first) == 0) {
        const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owned(first, ::freeifaddrs);
        for (const ifaddrs *one = first; one != nullptr; one = one->ifa_next) {
            add(AddressText(one->ifa_addr));
        }
    }
    return names;
}

Parvane::ObjectPtr<GTlsCertificate> LoadCertificate(const std::string &certificateFile,
                                                    const std::string &keyFile,
                                                    const std::vector<std::string> &names,
                                                    bool mayMake)
{
    CertificateText text;
    const int noCertificate = ReadPart(certificateFile, text.mCertificate);
    const int noKey = ReadPart(keyFile, text.mKey);
    if (noCertificate != 0 && noKey != 0 && mayMake) {
        text = MakeCertificate(names);
        ReplacePrivateFile(keyFile, text.mKey);
        ReplacePrivateFile(certificateFile, text.mCertificate);
    } else if (noCertificate != 0 || noKey != 0) {
        throw std::runtime_error("cannot read " + (noKey != 0 ? keyFile : certificateFile) + ": " +
                                 Parvane::ErrnoText(ENOENT));
    }
    const auto fail = [&](const std::string &reason) {
        return std::runtime_error("cannot use the certificate " + certificateFile +
                                  " with the key " + keyFile + ": " + reason);
    };
    if (const std::string mismatch = Mismatch(text); !mismatch.empty()) {
        throw fail(mismatch);
    }
    const std::string both = text.mCertificate + '\n' + text.mKey;
    GError *failure = nullptr;
    Parvane::ObjectPtr<GTlsCertificate> certificate(
        g_tls_certificate_new_from_pem(both.c_str(), static_cast<gssize>(both.size()), &failure));
    const Parvane::ErrorPtr owned(failure);
    if (!certificate) {
        throw fail(failure->message);
    }
    return certificate;
}

} // namespace ParvaneGateway
