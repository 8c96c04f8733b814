#pragma once

#include <cstdint>
#include <variant>
#include <vector>

#include <platform/context_manager.h>

#include "SensorReading.h"

namespace ParvanePlatform {

/** The longest key of a value, its end not counted. */
constexpr std::size_t kMaxContextKeyBytes = 63;

/** The most values that an option takes. */
constexpr std::uint32_t kMaxOptionValues = 1000;

// Readings and options are each one block from malloc without pointers in it, so that whoever holds
// one releases all of it with free(). A null block, or one of the other kind, is refused (-22).

/**
 * Makes the block of a reading.
 *
 * @param wallMs  the time of its delivery, in milliseconds since the epoch
 * @return a block that its receiver releases with free(); never null
 * @throws std::bad_alloc
 */
context_data *MakeContextData(std::int64_t wallMs, const SensorReading &reading);

/**
 * Reads a value as an int; a double is converted when it is exactly a number that int can hold.
 *
 * @return 0; -22; -2 when there is no such key; -34 when the value is no int
 */
int GetContextInt(const context_data *data, const char *key, int *value) noexcept;

/** Reads a value as a double; every int is one. @return 0; -22; -2 when there is no such key */
int GetContextDouble(const context_data *data, const char *key, double *value) noexcept;

/** Reads the time of the delivery. @return 0; -22 */
int GetContextTimestamp(const context_data *data, std::int64_t *wallMs) noexcept;

/** Makes an empty option; null without memory. */
context_option *MakeContextOption() noexcept;

/**
 * Adds a value to an option; a key may be added more than once. The block may move, then `*option`
 * says where it is; nothing changes when the call fails.
 *
 * @return 0; -22 for null, no key or one that is too long, or too many values; -12 without memory
 */
int AddOptionValue(context_option **option, const char *key,
                   const std::variant<int, double> &value) noexcept;

/** True for a block that MakeContextOption() has made. */
bool IsContextOption(const context_option *option) noexcept;

/** The int values of one key, in the order in which they were added. */
std::vector<int> GetOptionInts(const context_option *option, const char *key);

} // namespace ParvanePlatform
