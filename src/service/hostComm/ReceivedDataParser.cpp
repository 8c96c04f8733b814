#include "ReceivedDataParser.h"

#include "Command.h"
#include "SensorData.h"
#include "SensorListData.h"

namespace Parvane {

namespace {

constexpr std::size_t kHeaderOffset = 0;
constexpr std::size_t kCategoryOffset = 3;
constexpr std::size_t kFormatOffset = 4;
constexpr std::size_t kOptionOffset = 4;

constexpr unsigned kCommandMask = 0x0F;
constexpr unsigned kFlagsShift = 4;
constexpr unsigned kFlagsMask = 0x03;
constexpr unsigned kCodeBit = 0x40;

constexpr uint8_t kLargestFormat = 5;
constexpr uint8_t kLargestOption = 2;

uint8_t ByteAt(const uint8_t *data, std::size_t size, std::size_t offset)
{
    return offset < size ? data[offset] : uint8_t{0};
}

} // namespace

std::shared_ptr<HeaderData> ReceivedDataParser::CreateHeaderData(int32_t command) const
{
    std::shared_ptr<HeaderData> record;
    switch (command) {
    case CommandSensorList:
        record = std::make_shared<SensorListData>();
        break;
    case CommandMeasureOnce:
    case CommandStart:
    case CommandStop:
        record = std::make_shared<SensorData>();
        break;
    default:
        return nullptr;
    }
    record->mMessageType = command;
    return record;
}

std::shared_ptr<HeaderData> ReceivedDataParser::Parse(const uint8_t *data, std::size_t size) const
{
    const unsigned header = ByteAt(data, size, kHeaderOffset);
    std::shared_ptr<HeaderData> record =
        CreateHeaderData(static_cast<int32_t>(header & kCommandMask));
    if (!record) {
        return nullptr;
    }
    record->mMessageFlags = static_cast<uint8_t>((header >> kFlagsShift) & kFlagsMask);
    record->mHeaderCode = (header & kCodeBit) == 0 ? 1 : 0;
    if (record->mMessageType == CommandSensorList) {
        return record;
    }

    auto &request = static_cast<SensorData &>(*record);
    request.mCategory = ByteAt(data, size, kCategoryOffset);
    if (request.mMessageType == CommandStart) {
        const uint8_t format = ByteAt(data, size, kFormatOffset);
        request.mDataFormat = format <= kLargestFormat ? format : SensorData::kDefaultDataFormat;
    }
    // Not reached, since CreateHeaderData makes no record of an option request: it says what the byte
    // means, for the response side knows option requests.
    if (request.mMessageType == CommandOption) {
        const uint8_t option = ByteAt(data, size, kOptionOffset);
        request.mDataOption = option <= kLargestOption ? option : 0;
    }
    return record;
}

} // namespace Parvane
