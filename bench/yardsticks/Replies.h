#pragma once

/** What the replying programs and their clients have in common. */
namespace ParvaneBench {

/** A request's first byte: what is to be answered. */
constexpr unsigned char kListByte = 1;
constexpr unsigned char kReadingByte = 2;

/** Bytes of the messages of an answer: a reading, and a sensor list. */
constexpr unsigned kReadingSizes[] = {18};
constexpr unsigned kListSizes[] = {13, 25, 25, 25, 25};
constexpr unsigned kLargestReply = 25;

constexpr char kBusName[] = "org.parvane.Bench";
constexpr char kBusPath[] = "/org/parvane/Bench";
constexpr char kRequestTopic[] = "bench/request";
constexpr char kReplyTopic[] = "bench/reply";

} // namespace ParvaneBench
