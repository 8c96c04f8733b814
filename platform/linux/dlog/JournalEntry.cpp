#include "JournalEntry.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <syslog.h>
#include <unistd.h>

#include "LogPlace.h"
#include "LogText.h"
#include "SystemdLibrary.h"

namespace ParvanePlatform {

namespace {

constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

struct Free
{
    void operator()(char *block) const noexcept { std::free(block); }
};

unsigned SyslogLevelOf(LogPriority priority)
{
    switch (priority) {
    case LogPriority::Verbose:
    case LogPriority::Debug:
        return LOG_DEBUG;
    case LogPriority::Info:
        return LOG_INFO;
    case LogPriority::Warning:
        return LOG_WARNING;
    case LogPriority::Error:
        return LOG_ERR;
    case LogPriority::Fatal:
        return LOG_CRIT;
    }
    return LOG_INFO;
}

/** Lays fields into a buffer, one behind the other. */
class FieldWriter
{
public:
    FieldWriter(char *buffer, std::size_t size, iovec *fields)
        : mBuffer(buffer), mSize(size), mFields(fields), mText(buffer, size)
    {}

    LogText &Begin(std::string_view name)
    {
        mBegin = std::min(mText.Needed(), mSize);
        mText.Add(name);
        mText.Add('=');
        return mText;
    }

    void End() { mFields[mCount++] = {mBuffer + mBegin, std::min(mText.Needed(), mSize) - mBegin}; }

    int Count() const { return mCount; }
    std::size_t Needed() const { return mText.Needed(); }

private:
    char *mBuffer;
    std::size_t mSize;
    iovec *mFields;
    LogText mText;
    std::size_t mBegin = 0;
    int mCount = 0;
};

} // namespace

JournalEntry::JournalEntry(char *buffer, std::size_t size, LogPriority priority,
                           std::string_view tag, const LogPlace *place, std::string_view message)
{
    FieldWriter writer(buffer, size, mFields.data());
    writer.Begin("SYSLOG_IDENTIFIER").Add("parvane");
    writer.End();
    writer.Begin("PRIORITY").AddNumber(SyslogLevelOf(priority), 1);
    writer.End();
    writer.Begin("PARVANE_TAG").AddMessage(tag, LogColours::Strip);
    writer.End();
    const std::optional<LogPlace> found = place != nullptr ? *place : FindLogPlace(message);
    if (found) {
        writer.Begin("CODE_FILE").Add(found->mFile);
        writer.End();
        writer.Begin("CODE_FUNC").Add(found->mFunction);
        writer.End();
        writer.Begin("CODE_LINE").AddNumber(static_cast<unsigned>(found->mLine), 1);
        writer.End();
    }
    writer.Begin("MESSAGE").AddMessage(message, LogColours::Strip);
    writer.End();
    mCount = writer.Count();
    mNeeded = writer.Needed();
}

int SendToJournal(LogPriority priority, std::string_view tag, const LogPlace *place,
                  std::string_view message) noexcept
{
    const SystemdLibrary *library = SystemdLibrary::Get();
    // The library drops entries without a word when there is no journal.
    if (library == nullptr || ::access(kJournalSocket, W_OK) != 0) {
        return -ENOTCONN;
    }
    char shortBuffer[2560];
    JournalEntry entry(shortBuffer, sizeof shortBuffer, priority, tag, place, message);
    std::unique_ptr<char, Free> longBuffer;
    if (const std::size_t size = entry.Needed(); size > sizeof shortBuffer) {
        longBuffer.reset(static_cast<char *>(std::malloc(size)));
        // Without memory the message is cut, not lost.
        if (longBuffer != nullptr) {
            entry = JournalEntry(longBuffer.get(), size, priority, tag, place, message);
        }
    }
    const int result = library->mJournalSend(entry.Fields(), entry.Count());
    return result < 0 ? result : static_cast<int>(entry.Needed());
}

} // namespace ParvanePlatform
