#include "SqliteLog.h"

#include "Input.h"
#include "Require.h"

// The write-ahead log of the preferences.

using namespace ParvanePlatform;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const SqliteLogState state = InspectSqliteLog(ParvaneFuzz::TextOf(data, size));
    ParvaneFuzz::Require((state == SqliteLogState::Empty) == (size == 0),
                         "no bytes are an empty log, and nothing else is");
    ParvaneFuzz::Require((state != SqliteLogState::Sound && state != SqliteLogState::Damaged) ||
                             size >= 32,
                         "a log has a head");
    return 0;
}
