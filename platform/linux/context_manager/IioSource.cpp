#include "IioSource.h"

#include "base/ErrorCode.h"

namespace ParvanePlatform {

IioSource::IioSource(const IioSettings & /*settings*/, const Clock & /*clock*/,
                     std::unique_ptr<Timer> /*timer*/)
{}

void IioSource::SetListener(SensorListener *listener)
{
    mListener = listener;
}

int IioSource::Start(ContextItem /*item*/)
{
    return ErrorCode::kNotSupported;
}

void IioSource::Stop(ContextItem /*item*/) {}

std::optional<SensorReading> IioSource::Latest(ContextItem /*item*/) const
{
    return std::nullopt;
}

} // namespace ParvanePlatform
