#include <cmath>
#include <string>

#include "IioChannel.h"
#include "IioCounter.h"
#include "Input.h"
#include "Require.h"
#include "TestSupport.h"

// What the files of an industrial-I/O device hold, one after the other, with ';' between them.

using namespace ParvanePlatform;
using ParvaneFuzz::Require;

namespace {

constexpr double kLimit = 2147483647.0;

void Check(IioChannel &channel, const IioChannel::Range &range, const std::string &device,
           IioCounter &counter)
{
    const IioChannel::Value value = channel.Read(device);
    Require(value.mState != IioChannel::State::Missing, "the file is there");
    if (value.mState != IioChannel::State::Good) {
        return;
    }
    Require(value.mNumber >= range.mMin && value.mNumber <= range.mMax, "a good value is in range");
    Require(range.mKind == IioChannel::Kind::Decimal || std::trunc(value.mNumber) == value.mNumber,
            "a whole number is whole");
    const double before = counter.Count().value_or(0.0);
    counter.Take(value.mNumber);
    const double after = counter.Count().value_or(-1.0);
    Require(after >= before && after <= kLimit, "a count goes up, to its limit");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const TemporaryDirectory device;
    const IioChannel::Range whole = {0.0, kLimit, IioChannel::Kind::WholeNumber};
    const IioChannel::Range decimal = {0.0, 100.0, IioChannel::Kind::Decimal};
    IioChannel steps("in_steps_input", whole);
    IioChannel confidence("in_activity_walking_input", decimal);
    IioCounter counter(kLimit);
    IioCounter other(kLimit);
    for (const std::string_view text : ParvaneFuzz::Split(ParvaneFuzz::TextOf(data, size), ';')) {
        WriteFile(device / steps.File(), text);
        WriteFile(device / confidence.File(), text);
        Check(steps, whole, device.Path(), counter);
        Check(confidence, decimal, device.Path(), other);
    }
    return 0;
}
