#pragma once

namespace ParvanePlatform {

/**
 * What the C functions return, 0 apart. Each is the negated system error of its meaning, so that a
 * code that the platform passes on from the system reads the same.
 *
 * The functions of the accessory link have small positive codes of their own (LinkSession.h).
 */
namespace ErrorCode {

/** There is no runtime: the call came before service_app_main() has built it or after its end. */
constexpr int kInvalidContext = -1;
/** No such file, key or value. */
constexpr int kNotFound = -2;
/** Reading or writing what is stored has failed; a log line says why. */
constexpr int kInputOutput = -5;
constexpr int kOutOfMemory = -12;
/** A null pointer, a bad name, a value outside its range, or a value of another type. */
constexpr int kInvalidParameter = -22;
/** The value does not fit the type that was asked for. */
constexpr int kOutOfRange = -34;
/** The item has no value yet. */
constexpr int kNoData = -61;
/** What is stored is not of the form that was asked for. */
constexpr int kBadContent = -74;
/** There is no such item. */
constexpr int kNotSupported = -95;
/** Another instance runs. */
constexpr int kAlready = -114;
/** There is no such preference. */
constexpr int kNoSuchKey = -126;

} // namespace ErrorCode

} // namespace ParvanePlatform
