#include "Vectors.h"

#include <fstream>
#include <stdexcept>

namespace Parvane::Vectors {

namespace {

using nlohmann::json;

json PacketOfExchange(const json &exchange, json event)
{
    const auto at = event.at("at_ms").get<std::int64_t>();
    event["name"] = exchange.at("name").get<std::string>() + ", at " + std::to_string(at) + " ms";
    const std::int64_t seconds = exchange.at("begins").get<std::int64_t>() + at / 1000;
    const auto timeMs = static_cast<std::uint32_t>(seconds * 1000);
    if (event.at("packet").is_object() && event.at("packet").value("time_ms", 0U) == timeMs) {
        event["seconds"] = seconds;
    }
    return event;
}

} // namespace

json Read(const std::string &file)
{
    std::ifstream stream(PARVANE_VECTORS_FOLDER "/" + file);
    return json::parse(stream);
}

Bytes FromHex(const std::string &text)
{
    Bytes bytes;
    bytes.reserve((text.size() + 1) / 3); // and no more: a sanitizer sees every read beyond the end
    for (std::size_t begin = 0; begin < text.size(); begin += 3) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(begin, 2), nullptr, 16)));
    }
    return bytes;
}

std::vector<json> SentBy(const std::string &from)
{
    std::vector<json> packets =
        Read(from == "phone" ? "requests.json" : "replies.json").at("vectors");
    const json exchanges = Read("exchanges.json");
    for (const json &exchange : exchanges.at("exchanges")) {
        for (const json &event : exchange.at("events")) {
            if (event.value("from", "") == from) {
                packets.push_back(PacketOfExchange(exchange, event));
            }
        }
    }
    return packets;
}

Bytes Named(const std::string &file, const std::string &name)
{
    const json whole = Read(file);
    for (const json &vector : whole.at("vectors")) {
        if (vector.at("name") == name) {
            return FromHex(vector.at("bytes"));
        }
    }
    throw std::out_of_range("no vector \"" + name + "\" in " + file);
}

} // namespace Parvane::Vectors
