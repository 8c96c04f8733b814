#include "IioChannel.h"

#include <cerrno>
#include <cmath>
#include <string_view>
#include <utility>

#include "Files.h"
#include "MessageText.h"
#include "Numbers.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

/** Longer than any number that a driver writes. */
constexpr std::size_t kMaxBytes = 64;

std::string_view WithoutBlanks(std::string_view text)
{
    constexpr std::string_view kBlanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string Quoted(std::string_view text)
{
    return std::string("'").append(Printable(text)).append("'");
}

} // namespace

IioChannel::IioChannel(std::string file, const Range &range) : mFile(std::move(file)), mRange(range)
{}

IioChannel::Value IioChannel::Read(const std::string &device)
{
    const std::string path = device + '/' + mFile;
    const Value value = Check(path);
    if (value.mState == State::Good) {
        Tell(State::Good, path + " is good again");
    }
    mWasThere = mWasThere || value.mState != State::Missing;
    return value;
}

IioChannel::Value IioChannel::ReadOptional(const std::string &device)
{
    const Value value = Read(device);
    if (value.mState == State::Missing && mWasThere) {
        Tell(State::Missing, device + '/' + mFile + " has gone");
    }
    return value;
}

IioChannel::Value IioChannel::Check(const std::string &path)
{
    std::string content;
    const int error = ReadWholeFile(path, kMaxBytes, content);
    if (error == ENOENT || error == ENOTDIR) {
        return {State::Missing};
    }
    if (error != 0) {
        Tell(State::Unreadable, "cannot read " + path + ": " + ErrorText(error));
        return {State::Unreadable};
    }
    const std::string_view text = WithoutBlanks(content);
    const auto number = ParseDecimal(text);
    const bool isWhole = mRange.mKind == Kind::WholeNumber;
    if (!number || (isWhole && std::trunc(*number) != *number)) {
        Tell(State::NotANumber, path + ": " + Quoted(text) +
                                    (isWhole ? " is not a whole number" : " is not a number"));
        return {State::NotANumber};
    }
    if (*number < mRange.mMin || *number > mRange.mMax) {
        Tell(State::OutOfRange, path + ": " + Quoted(text) + " is out of range");
        return {State::OutOfRange};
    }
    return {State::Good, *number};
}

void IioChannel::Tell(State state, const std::string &line)
{
    if (std::exchange(mTold, state) == state) {
        return;
    }
    if (state == State::Good) {
        LogInfo("iio: %s", line.c_str());
    } else {
        LogWarning("iio: %s", line.c_str());
    }
}

} // namespace ParvanePlatform
