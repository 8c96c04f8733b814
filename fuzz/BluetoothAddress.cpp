#include "BluetoothAddress.h"

#include "Input.h"
#include "Require.h"

// The address of an adapter, or of a configured strap.

using ParvaneFuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view text = ParvaneFuzz::TextOf(data, size);
    const auto address = ParvanePlatform::NormaliseBluetoothAddress(text);
    if (!address) {
        return 0;
    }
    Require(text.size() == 17 && address->size() == 17, "an address has 17 characters");
    for (const char character : *address) {
        Require(character == ':' || (character >= '0' && character <= '9') ||
                    (character >= 'A' && character <= 'F'),
                "an address has digits and colons");
    }
    Require(ParvanePlatform::NormaliseBluetoothAddress(*address) == address,
            "a normal address is normal");
    return 0;
}
