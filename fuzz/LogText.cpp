#include "LogText.h"

#include <algorithm>
#include <array>

#include "Input.h"
#include "JournalEntry.h"
#include "LogPlace.h"
#include "Require.h"

// A message of the service on its way into a line and into an entry of the journal.

using namespace ParvanePlatform;
using ParvaneFuzz::Require;

namespace {

void MakeLine(std::string_view message, LogColours colours)
{
    std::array<char, 256> buffer = {};
    LogText text(buffer.data(), buffer.size());
    text.AddMessage(message, colours);
    const std::string_view line(buffer.data(), std::min(text.Needed(), buffer.size()));
    Require(std::none_of(line.begin(), line.end(),
                         [colours](unsigned char c) {
                             const bool isColour = c == 0x1b && colours == LogColours::Keep;
                             return (c < 0x20 || c == 0x7f) && !isColour;
                         }),
            "a message is one line");
    Require(text.Needed() <= 4 * message.size(), "no character becomes more than \\xHH");
}

void MakeEntry(std::string_view message)
{
    std::array<char, 256> buffer = {};
    const std::size_t needed = FormatJournalEntry(buffer.data(), buffer.size(),
                                                  LogPriority::Warning, message, nullptr, message);
    const std::string_view entry(buffer.data(), std::min(needed, buffer.size()));
    const auto fields = std::count(entry.begin(), entry.end(), '\n');
    const auto expected = FindLogPlace(message) ? 7 : 4;
    Require(needed > buffer.size() ? fields < expected : fields == expected,
            "each field is one line");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view message = ParvaneFuzz::TextOf(data, size);
    MakeLine(message, LogColours::Keep);
    MakeLine(message, LogColours::Strip);
    MakeEntry(message);
    if (const auto place = FindLogPlace(message)) {
        Require(!place->mFile.empty() && !place->mFunction.empty() && place->mLine >= 0,
                "a place is whole");
    }
    return 0;
}
