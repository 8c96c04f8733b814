#include "ConsoleFiles.h"

#include <array>

#include <gio/gio.h>

#include "ObjectPtr.h"

#ifdef PARVANE_CONSOLE
extern "C" GResource *parvane_console_get_resource(); // NOLINT: as glib-compile-resources names it
#endif

namespace ParvaneGateway {

std::string ConsoleFile::Plain() const
{
    if (!mIsCompressed) {
        return std::string(mBytes);
    }
    const Parvane::ObjectPtr<GInputStream> source(g_memory_input_stream_new_from_data(
        mBytes.data(), static_cast<gssize>(mBytes.size()), nullptr));
    const Parvane::ObjectPtr<GZlibDecompressor> decompressor(
        g_zlib_decompressor_new(G_ZLIB_COMPRESSOR_FORMAT_GZIP));
    const Parvane::ObjectPtr<GInputStream> stream(
        g_converter_input_stream_new(source.get(), G_CONVERTER(decompressor.get())));
    std::string text;
    std::array<char, 16384> buffer; // NOLINT: filled by the read
    gssize count = 0;
    while ((count = g_input_stream_read(stream.get(), buffer.data(), buffer.size(), nullptr,
                                        nullptr)) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
}

#ifdef PARVANE_CONSOLE

namespace {

/** Resources of the program lie in its memory: nothing is copied, and nothing is released. */
std::optional<std::string_view> Find(const std::string &name)
{
    const std::unique_ptr<GBytes, decltype(&g_bytes_unref)> bytes(
        g_resource_lookup_data(parvane_console_get_resource(), ("/console/" + name).c_str(),
                               G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr),
        g_bytes_unref);
    if (!bytes) {
        return std::nullopt;
    }
    gsize size = 0;
    const auto *data = static_cast<const char *>(g_bytes_get_data(bytes.get(), &size));
    return std::string_view(data, size);
}

std::string TypeOf(const std::string &name)
{
    if (name.ends_with(".js")) {
        return "text/javascript; charset=utf-8";
    }
    if (name.ends_with(".css")) {
        return "text/css; charset=utf-8";
    }
    return name.ends_with(".svg") ? "image/svg+xml" : "text/html; charset=utf-8";
}

} // namespace

std::optional<ConsoleFile> FindConsoleFile(const std::string &path)
{
    if (!path.starts_with('/') || path.ends_with(".html")) {
        return std::nullopt; // the page has one address
    }
    const std::string name = path == "/" ? "index.html" : path.substr(1);
    const auto bytes = Find(name + ".gz");
    if (!bytes) {
        return std::nullopt;
    }
    if (name.starts_with("assets/")) {
        return ConsoleFile{TypeOf(name), "public, max-age=31536000, immutable", "", true, *bytes};
    }
    return ConsoleFile{TypeOf(name), "no-cache", std::string(Find("etag").value_or("")), true,
                       *bytes};
}

#else

std::optional<ConsoleFile> FindConsoleFile(const std::string &path)
{
    static constexpr std::string_view kPage =
        "<!DOCTYPE html>\n<html lang=\"en\"><meta charset=\"utf-8\"><title>Parvane gateway</title>\n"
        "<h1>Parvane gateway</h1>\n<p>This gateway was built without the console, the page that shows the "
        "watch: build it with <code>-DPARVANE_CONSOLE=ON</code> where npm is installed, or install the package "
        "<code>parvane-gateway</code>.</p>\n<p>A phone connects to <code>/link</code> with the WebSocket "
        "subprotocol <code>parvane.link.v1</code> and a token.</p>\n</html>\n";
    if (path != "/") {
        return std::nullopt;
    }
    return ConsoleFile{"text/html; charset=utf-8", "no-cache", "", false, kPage};
}

#endif

} // namespace ParvaneGateway
