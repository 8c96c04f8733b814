#include "ContextBlock.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <type_traits>

#include "ErrorCode.h"

namespace {

struct BlockHeader
{
    std::uint32_t mMagic;
    std::uint32_t mCount;
    std::int64_t mTimestampMs;
};

struct BlockEntry
{
    char mKey[ParvanePlatform::kMaxContextKeyBytes + 1];
    std::variant<int, double> mValue;
};

static_assert(sizeof(BlockHeader) % alignof(BlockEntry) == 0, "entries follow the header");
static_assert(std::is_trivially_copyable_v<BlockEntry>, "blocks are moved by realloc");

constexpr std::uint32_t kDataMagic = 0x50764461;
constexpr std::uint32_t kOptionMagic = 0x50764f70;

} // namespace

// Each block is a header, and its entries behind it.
struct context_data
{
    BlockHeader mHeader;
};

struct context_option
{
    BlockHeader mHeader;
};

namespace ParvanePlatform {

namespace {

std::size_t BlockBytes(std::size_t count)
{
    return sizeof(BlockHeader) + count * sizeof(BlockEntry);
}

const BlockEntry *EntriesOf(const BlockHeader &header)
{
    return reinterpret_cast<const BlockEntry *>(&header + 1);
}

BlockEntry *EntriesOf(BlockHeader &header)
{
    return reinterpret_cast<BlockEntry *>(&header + 1);
}

/** `key` must fit. */
BlockEntry MakeEntry(const char *key, const std::variant<int, double> &value)
{
    BlockEntry entry = {};
    std::memcpy(entry.mKey, key, std::strlen(key));
    entry.mValue = value;
    return entry;
}

bool IsData(const context_data *data)
{
    return data != nullptr && data->mHeader.mMagic == kDataMagic;
}

/** Looks a value up. @return 0; -22 for a null or for what is no reading; -2 for no such key */
int Find(const context_data *data, const char *key, const void *result, const BlockEntry *&entry)
{
    if (!IsData(data) || key == nullptr || result == nullptr) {
        return ErrorCode::kInvalidParameter;
    }
    const BlockEntry *const begin = EntriesOf(data->mHeader);
    const BlockEntry *const end = begin + data->mHeader.mCount;
    entry = std::find_if(begin, end,
                         [key](const BlockEntry &one) { return std::strcmp(one.mKey, key) == 0; });
    return entry == end ? ErrorCode::kNotFound : 0;
}

std::optional<int> ExactInt(double value)
{
    constexpr double kMin = std::numeric_limits<int>::min();
    constexpr double kMax = std::numeric_limits<int>::max();
    if (!(value >= kMin && value <= kMax) || std::trunc(value) != value) {
        return std::nullopt;
    }
    return static_cast<int>(value);
}

/** Of either kind, without what std::visit may throw. */
double NumberOf(const BlockEntry &entry)
{
    if (const auto *const whole = std::get_if<int>(&entry.mValue)) {
        return *whole;
    }
    const auto *const fraction = std::get_if<double>(&entry.mValue);
    return fraction != nullptr ? *fraction : 0.0;
}

bool IsValidKey(const char *key)
{
    return key != nullptr && key[0] != '\0' &&
           ::strnlen(key, kMaxContextKeyBytes + 1) <= kMaxContextKeyBytes;
}

} // namespace

context_data *MakeContextData(std::int64_t wallMs, const SensorReading &reading)
{
    auto *data = static_cast<context_data *>(std::calloc(1, BlockBytes(reading.size())));
    if (data == nullptr) {
        throw std::bad_alloc();
    }
    data->mHeader.mMagic = kDataMagic;
    data->mHeader.mTimestampMs = wallMs;
    BlockEntry *entries = EntriesOf(data->mHeader);
    for (const SensorValue &value : reading) {
        entries[data->mHeader.mCount] = MakeEntry(value.mKey, value.mValue);
        ++data->mHeader.mCount;
    }
    return data;
}

int GetContextInt(const context_data *data, const char *key, int *value) noexcept
{
    const BlockEntry *entry = nullptr;
    if (const int error = Find(data, key, value, entry); error != 0) {
        return error;
    }
    const auto number = ExactInt(NumberOf(*entry));
    if (!number) {
        return ErrorCode::kOutOfRange;
    }
    *value = *number;
    return 0;
}

int GetContextDouble(const context_data *data, const char *key, double *value) noexcept
{
    const BlockEntry *entry = nullptr;
    if (const int error = Find(data, key, value, entry); error != 0) {
        return error;
    }
    *value = NumberOf(*entry);
    return 0;
}

int GetContextTimestamp(const context_data *data, std::int64_t *wallMs) noexcept
{
    if (!IsData(data) || wallMs == nullptr) {
        return ErrorCode::kInvalidParameter;
    }
    *wallMs = data->mHeader.mTimestampMs;
    return 0;
}

context_option *MakeContextOption() noexcept
{
    auto *option = static_cast<context_option *>(std::calloc(1, BlockBytes(0)));
    if (option != nullptr) {
        option->mHeader.mMagic = kOptionMagic;
    }
    return option;
}

int AddOptionValue(context_option **option, const char *key,
                   const std::variant<int, double> &value) noexcept
{
    if (option == nullptr || !IsContextOption(*option) || !IsValidKey(key) ||
        (*option)->mHeader.mCount >= kMaxOptionValues) {
        return ErrorCode::kInvalidParameter;
    }
    const std::uint32_t count = (*option)->mHeader.mCount;
    void *moved = std::realloc(*option, BlockBytes(count + 1));
    if (moved == nullptr) {
        return ErrorCode::kOutOfMemory;
    }
    auto *block = static_cast<context_option *>(moved);
    EntriesOf(block->mHeader)[count] = MakeEntry(key, value);
    block->mHeader.mCount = count + 1;
    *option = block;
    return 0;
}

bool IsContextOption(const context_option *option) noexcept
{
    return option != nullptr && option->mHeader.mMagic == kOptionMagic;
}

std::vector<int> GetOptionInts(const context_option *option, const char *key)
{
    std::vector<int> values;
    const BlockEntry *entries = EntriesOf(option->mHeader);
    for (std::uint32_t i = 0; i < option->mHeader.mCount; ++i) {
        const int *value = std::get_if<int>(&entries[i].mValue);
        if (value != nullptr && std::strcmp(entries[i].mKey, key) == 0) {
            values.push_back(*value);
        }
    }
    return values;
}

} // namespace ParvanePlatform
