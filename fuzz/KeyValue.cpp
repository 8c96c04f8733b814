#include <filesystem>
#include <string>

#include "Input.h"
#include "KeyValueStore.h"
#include "Require.h"
#include "TestSupport.h"

// The file of a key, and the same bytes as the name of a key.

using namespace ParvanePlatform;
using ParvaneFuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const TemporaryDirectory directory;
    const KeyValueStore store(directory.Path(), directory.Path());
    const std::string_view text = ParvaneFuzz::TextOf(data, size);
    WriteFile(directory / "key", text);
    int value = 12345;
    const int result = store.GetInt("key", value);
    Require(result == 0 || result == -74, "a file holds a number or not");
    if (result == 0) {
        Require(!text.empty() &&
                    (text.front() == '-' || (text.front() >= '0' && text.front() <= '9')),
                "a number has digits");
    } else {
        Require(value == 12345, "what is no number leaves the value alone");
    }
    const int named = store.GetInt(text, value);
    Require(named == -22 || named == -2 || named == -5 || text == "key",
            "there is no other key than the one that was made");
    return 0;
}
