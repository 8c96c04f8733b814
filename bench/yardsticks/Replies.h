#pragma once

/** What the replying programs and their clients have in common. */
namespace ParvaneBench {

/** A request's first byte: what is to be answered. */
constexpr unsigned char kListByte = 1;
constexpr unsigned char kReadingByte = 2;

/** Bytes of an answer: a reading, and the five packets of a sensor list as one. */
constexpr unsigned kReadingBytes = 18;
constexpr unsigned kListBytes = 13 + 4 * 25;

constexpr char kBusName[] = "org.parvane.Bench";
constexpr char kBusPath[] = "/org/parvane/Bench";
constexpr char kRequestTopic[] = "bench/request";
constexpr char kReplyTopic[] = "bench/reply";

} // namespace ParvaneBench
