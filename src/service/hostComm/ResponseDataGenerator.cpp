#include "ResponseDataGenerator.h"

#include <array>
#include <optional>
#include <utility>

#include "ActivityData.h"
#include "Command.h"
#include "HRMData.h"
#include "Log.h"
#include "PedometerData.h"
#include "WearStateData.h"

namespace Parvane {

namespace {

constexpr uint32_t kReadingSize = 18;
constexpr int32_t kReadingLength = 14;
constexpr int32_t kReadingFields = 0x11;
constexpr std::size_t kReadingTimeOffset = 5;
constexpr std::size_t kReadingValueOffset = 13;

constexpr uint32_t kAcknowledgementSize = 4;
constexpr int32_t kAcknowledgementLength = 2;

constexpr int32_t kListBit = 0x80;
constexpr uint32_t kListHeaderSize = 13;
constexpr int32_t kListHeaderMark = 0x80;
constexpr int32_t kListHeaderLength = 10;
constexpr int32_t kListHeaderKind = 3;
constexpr std::size_t kListAddressOffset = 4;
constexpr std::size_t kListCountOffset = 12;

constexpr uint32_t kEntrySize = 25;
constexpr int32_t kEntryLength = 21;
constexpr int32_t kEntryKindBase = 0x40;

// The host's numbers for the platform's activities kFirstActivity and on.
constexpr int32_t kFirstActivity = 2;
constexpr std::array<float, 5> kActivityValues = {1.0F, 2.0F, 0.0F, 0.0F, 3.0F};

uint8_t HeaderByte(const HeaderData &record)
{
    const bool isKnown =
        record.mMessageType >= CommandSensorList && record.mMessageType <= CommandOption;
    const int32_t command = isKnown ? record.mMessageType : 0;
    return static_cast<uint8_t>(command | (record.mMessageFlags << 4));
}

float ActivityValue(int32_t status)
{
    // Unsigned, so that a status below the table is beyond its end.
    const uint32_t index = static_cast<uint32_t>(status) - uint32_t{kFirstActivity};
    return index < kActivityValues.size() ? kActivityValues[index] : 0.0F;
}

// The value of a reading's kind; none for a kind that has no rule.
std::optional<float> ReadingValue(const SensorData &reading)
{
    switch (reading.GetSensorType()) {
    case SensorType::Activity:
        return ActivityValue(static_cast<const ActivityData &>(reading).mStatus);
    case SensorType::Pedometer:
        return static_cast<float>(static_cast<const PedometerData &>(reading).mTotalStepCount);
    case SensorType::HRM:
        return static_cast<float>(static_cast<const HRMData &>(reading).mHeartRate);
    case SensorType::WearState:
        return static_cast<const WearStateData &>(reading).mStatus;
    case SensorType::None:
    case SensorType::Gesture:
        break;
    }
    return std::nullopt;
}

std::shared_ptr<ResponseDataGenerator::PacketList> ListOf(std::shared_ptr<PacketData> packet)
{
    auto packets = std::make_shared<ResponseDataGenerator::PacketList>();
    packets->push_back(std::move(packet));
    return packets;
}

} // namespace

std::shared_ptr<ResponseDataGenerator::PacketList>
ResponseDataGenerator::GenerateResponse(std::shared_ptr<HeaderData> record) const
{
    switch (record->mMessageType) {
    case CommandSensorList:
        return GenerateSensorListPacket(record);
    case CommandMeasureOnce:
    case CommandStart:
        return GenerateSensorResponseData(record);
    case CommandStop:
        return GenerateStopResponseData(record);
    case CommandOption:
        return GenerateOptionResponseData(record);
    default:
        return nullptr;
    }
}

std::shared_ptr<ResponseDataGenerator::PacketList>
ResponseDataGenerator::GenerateSensorResponseData(const std::shared_ptr<HeaderData> &record) const
{
    const auto &reading = static_cast<const SensorData &>(*record);
    auto packet = std::make_shared<PacketData>();
    packet->Allocate(kReadingSize);
    packet->SetByte(HeaderByte(reading), 0);
    packet->SetByte(0, 1);
    packet->SetByte(kReadingLength, 2);
    packet->SetByte(reading.mCategory, 3);
    packet->SetByte(kReadingFields, 4);
    packet->SetTimeMillis(reading.mTimestamp, kReadingTimeOffset);
    const std::optional<float> value = ReadingValue(reading);
    if (!value) {
        PARVANE_ERROR(
            "Requested with Response but this data has no category, return with default value");
    }
    packet->SetFloat(value.value_or(0.0F), kReadingValueOffset);
    packet->SetByte(0, 17);
    return ListOf(std::move(packet));
}

std::shared_ptr<ResponseDataGenerator::PacketList>
ResponseDataGenerator::GenerateStopResponseData(const std::shared_ptr<HeaderData> &record) const
{
    const auto &request = static_cast<const SensorData &>(*record);
    auto packet = std::make_shared<PacketData>();
    packet->Allocate(kAcknowledgementSize);
    packet->SetByte(HeaderByte(request), 0);
    // Hosts read the length here, one byte before its place in every other packet.
    packet->SetByte(kAcknowledgementLength, 1);
    packet->SetByte(0, 2);
    packet->SetByte(request.mCategory, 3);
    return ListOf(std::move(packet));
}

std::shared_ptr<ResponseDataGenerator::PacketList>
ResponseDataGenerator::GenerateOptionResponseData(const std::shared_ptr<HeaderData> &record) const
{
    const auto &request = static_cast<const SensorData &>(*record);
    auto packet = std::make_shared<PacketData>();
    packet->Allocate(kAcknowledgementSize);
    packet->SetByte(HeaderByte(request), 0);
    packet->SetByte(0, 1);
    packet->SetByte(kAcknowledgementLength, 2);
    packet->SetByte(request.mCategory, 3);
    return ListOf(std::move(packet));
}

std::shared_ptr<ResponseDataGenerator::PacketList>
ResponseDataGenerator::GenerateSensorListPacket(const std::shared_ptr<HeaderData> &record) const
{
    const auto &reply = static_cast<const SensorListData &>(*record);
    const uint8_t header = HeaderByte(reply);
    auto packets = ListOf(GenerateSensorListHeaderPacket(reply, header));
    if (!reply.mSensorList || reply.mSensorList->empty()) {
        PARVANE_WARN("dataList is NULL or empty");
        return packets;
    }
    uint8_t position = 1;
    for (const std::shared_ptr<SensorInfo> &info : *reply.mSensorList) {
        packets->push_back(GenerateSensorInfoPacket(*info, header, position));
        ++position;
    }
    return packets;
}

std::shared_ptr<PacketData>
ResponseDataGenerator::GenerateSensorListHeaderPacket(const SensorListData &record,
                                                      uint8_t header) const
{
    auto packet = std::make_shared<PacketData>();
    packet->Allocate(kListHeaderSize);
    packet->SetByte(header | kListBit, 0);
    packet->SetByte(kListHeaderMark, 1);
    packet->SetByte(kListHeaderLength, 2);
    packet->SetByte(kListHeaderKind, 3);
    constexpr uint8_t kUnknownAddress[SensorListData::kDeviceAddressSize] = {};
    packet->SetBytes(record.mDeviceAddress ? record.mDeviceAddress.get() : kUnknownAddress,
                     kListAddressOffset, SensorListData::kDeviceAddressSize);
    const std::size_t count = record.mSensorList ? record.mSensorList->size() : 0;
    packet->SetByte(static_cast<uint8_t>(count), kListCountOffset);
    return packet;
}

std::shared_ptr<PacketData> ResponseDataGenerator::GenerateSensorInfoPacket(const SensorInfo &info,
                                                                            uint8_t header,
                                                                            uint8_t position) const
{
    auto packet = std::make_shared<PacketData>();
    packet->Allocate(kEntrySize);
    packet->SetByte(header | kListBit, 0);
    packet->SetByte(position, 1);
    packet->SetByte(kEntryLength, 2);
    packet->SetByte(info.mSensorId + kEntryKindBase, 3);
    packet->SetByte(info.mSensorId, 4);
    packet->SetByte(info.mAvailable, 5);
    packet->SetFloat(info.mMaxRange, 6);
    packet->SetFloat(info.mResolution, 10);
    packet->SetFloat(info.mMinValue, 14);
    packet->SetInt(info.mMinDelay, 18);
    packet->SetShort(static_cast<int16_t>(info.mReserved), 22);
    packet->SetByte(0, 24);
    return packet;
}

} // namespace Parvane
