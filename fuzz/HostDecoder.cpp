#include <cmath>
#include <set>
#include <string>

#include "HexBytes.h"
#include "Input.h"
#include "JsonPrinter.h"
#include "Require.h"
#include "TextPrinter.h"
#include "WireCodec.h"

// A packet of the watch in the phone's decoder and both of its printers; and the same bytes as the
// text of a packet that somebody types.

using ParvaneFuzz::Require;

namespace {

constexpr std::int64_t kNowMs = 1769862896789;

void PrintIsOneLineEach(
    const ParvaneHost::Printer &printer, const ParvaneHost::Bytes &packet,
    const ParvaneHost::Result<ParvaneHost::Reply, ParvaneHost::DecodeError> &meaning)
{
    const ParvaneHost::Lines lines = printer.Packet(packet, meaning, kNowMs);
    Require(!lines.empty(), "every packet is printed");
    for (const std::string &line : lines) {
        Require(line.find('\n') == std::string::npos, "a line is one line");
    }
}

void Decode(const ParvaneHost::Bytes &packet)
{
    const auto meaning = ParvaneHost::Decode(packet);
    if (meaning.Ok()) {
        const std::set<std::size_t> sizes = {4, 13, 18, 25};
        Require(sizes.count(packet.size()) != 0, "a packet has one of four sizes");
        if (const auto *reading = std::get_if<ParvaneHost::Reading>(&meaning.Value())) {
            Require(std::isfinite(reading->mValue), "a value is finite");
            const std::int64_t time = ParvaneHost::FullTimeMs(reading->mTimeFieldMs, kNowMs);
            Require(static_cast<std::uint32_t>(time) == reading->mTimeFieldMs,
                    "a whole time fits its field");
        }
    } else {
        Require(meaning.GetError().mOffset <= packet.size(), "an error lies within the packet");
        Require(!meaning.GetError().Text().empty(), "an error has a text");
    }
    PrintIsOneLineEach(ParvaneHost::TextPrinter(), packet, meaning);
    PrintIsOneLineEach(ParvaneHost::JsonPrinter(), packet, meaning);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const ParvaneHost::Bytes packet(data, data + size);
    Decode(packet);
    const auto again = ParvaneHost::ParseHex(ParvaneHost::ToHex(packet));
    Require(packet.empty() ? !again.Ok() : again.Ok() && again.Value() == packet,
            "bytes written as digits are read as the same bytes");
    const auto typed = ParvaneHost::ParseHex(ParvaneFuzz::TextOf(data, size));
    Require(typed.Ok() ? !typed.Value().empty() : !typed.GetError().empty(),
            "typed digits are bytes or wrong");
    return 0;
}
