#include "AcceptKey.h"

#include <array>
#include <memory>

#include "ObjectPtr.h"

namespace Parvane {

std::string AcceptOf(const std::string &key)
{
    const std::string text = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    const std::unique_ptr<GChecksum, decltype(&g_checksum_free)> checksum(
        g_checksum_new(G_CHECKSUM_SHA1), g_checksum_free);
    g_checksum_update(checksum.get(), reinterpret_cast<const guchar *>(text.data()),
                      static_cast<gssize>(text.size()));
    std::array<guint8, 20> digest{};
    gsize size = digest.size();
    g_checksum_get_digest(checksum.get(), digest.data(), &size);
    return GlibText(g_base64_encode(digest.data(), size)).get();
}

} // namespace Parvane
