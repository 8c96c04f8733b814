#include "Fingerprint.h"

#include <memory>

#include "ObjectPtr.h"

namespace Parvane {

std::string FingerprintOf(GTlsCertificate *certificate)
{
    GByteArray *bytes = nullptr;
    g_object_get(certificate, "certificate", &bytes, nullptr);
    const std::unique_ptr<GByteArray, decltype(&g_byte_array_unref)> owned(bytes,
                                                                           g_byte_array_unref);
    const GlibText hash(g_compute_checksum_for_data(G_CHECKSUM_SHA256, bytes->data, bytes->len));
    std::string fingerprint;
    for (const char *digit = hash.get(); *digit != '\0'; ++digit) {
        const auto place = digit - hash.get();
        if (place > 0 && place % 2 == 0) {
            fingerprint += ':';
        }
        fingerprint += g_ascii_toupper(*digit);
    }
    return fingerprint;
}

} // namespace Parvane
