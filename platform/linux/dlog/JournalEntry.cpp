#include "JournalEntry.h"

#include <cstdlib>
#include <memory>
#include <optional>
#include <syslog.h>

#include "JournalSocket.h"
#include "LogPlace.h"
#include "LogText.h"

namespace ParvanePlatform {

using Parvane::JournalSocket;

namespace {

// Constant-initialized and never destroyed: lines are logged before and after everything else.
constinit JournalSocket gJournal("/run/systemd/journal/socket");

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

void AddField(LogText &entry, std::string_view name, std::string_view value)
{
    entry.Add(name);
    entry.Add(value);
    entry.Add('\n');
}

} // namespace

std::size_t FormatJournalEntry(char *entry, std::size_t size, LogPriority priority,
                               std::string_view tag, const LogPlace *place,
                               std::string_view message)
{
    LogText text(entry, size);
    text.Add("SYSLOG_IDENTIFIER=parvane\nPRIORITY=");
    text.AddNumber(SyslogLevelOf(priority), 1);
    text.Add("\nPARVANE_TAG=");
    text.AddMessage(tag, LogColours::Strip);
    text.Add('\n');
    const std::optional<LogPlace> found = place != nullptr ? *place : FindLogPlace(message);
    if (found) {
        AddField(text, "CODE_FILE=", found->mFile);
        AddField(text, "CODE_FUNC=", found->mFunction);
        text.Add("CODE_LINE=");
        text.AddNumber(static_cast<unsigned>(found->mLine), 1);
        text.Add('\n');
    }
    text.Add("MESSAGE=");
    text.AddMessage(message, LogColours::Strip);
    text.Add('\n');
    return text.Needed();
}

int SendToJournal(LogPriority priority, std::string_view tag, const LogPlace *place,
                  std::string_view message) noexcept
{
    char shortEntry[2560];
    char *entry = shortEntry;
    std::size_t size =
        FormatJournalEntry(shortEntry, sizeof shortEntry, priority, tag, place, message);
    std::unique_ptr<char, Free> longEntry;
    if (size > sizeof shortEntry) {
        longEntry.reset(static_cast<char *>(std::malloc(size)));
        if (longEntry != nullptr) {
            entry = longEntry.get();
            FormatJournalEntry(entry, size, priority, tag, place, message);
        } else {
            // Without memory the message is cut, not lost.
            size = sizeof shortEntry;
            shortEntry[size - 1] = '\n';
        }
    }
    const int result = gJournal.Send(std::string_view(entry, size));
    return result < 0 ? result : static_cast<int>(size);
}

} // namespace ParvanePlatform
