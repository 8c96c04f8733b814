#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

/**
 * The vectors of docs/vectors, whose README.md says what they mean: packets and exchanges that every
 * implementation of the wire format agrees on. What is not there is thrown as an exception.
 */
namespace Parvane::Vectors {

using Bytes = std::vector<std::uint8_t>;

/** A file of docs/vectors, whole. */
nlohmann::json Read(const std::string &file);

/** The bytes of "12 00 0E". */
Bytes FromHex(const std::string &text);

/**
 * Every packet of requests.json, or of replies.json, that somebody sends or may send, and after them
 * those of the exchanges, which get a name, and a member "seconds" where their time is that of the event.
 *
 * @param from  "phone" or "watch"
 */
std::vector<nlohmann::json> SentBy(const std::string &from);

/** The bytes of the vector of that name in a file. */
Bytes Named(const std::string &file, const std::string &name);

} // namespace Parvane::Vectors
