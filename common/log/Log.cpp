#include "Log.h"

#include <cstring>
#include <new>
#include <string>
#include <unistd.h>

#include "JournalSocket.h"
#include "JournalStream.h"
#include "Output.h"

namespace Parvane {

namespace {

constexpr char kJournalPath[] = "/run/systemd/journal/socket";
constexpr std::string_view kFamily = "parvane-";

const char *gName = "parvane";

/** A kind of line: its priority as syslog counts, and what stands before its text. */
struct Kind
{
    int mPriority;
    const char *mPrefix;
};

std::string FileOf(const LogPlace &place)
{
    const char *slash = std::strrchr(place.mFile, '/');
    return slash == nullptr ? place.mFile : slash + 1;
}

/** "gateway" of "parvane-gateway". */
std::string Tag()
{
    const std::string_view name(gName);
    return std::string(name.substr(name.starts_with(kFamily) ? kFamily.size() : 0));
}

/** @return whether the journal has taken it */
bool SendToJournal(const Kind &kind, std::string_view text, const LogPlace &place)
{
    static JournalSocket journal(kJournalPath);
    static const bool isJournal = IsJournalStream(STDERR_FILENO);
    if (!isJournal) {
        return false;
    }
    std::string entry = std::string("SYSLOG_IDENTIFIER=") + gName +
                        "\nPRIORITY=" + std::to_string(kind.mPriority) + "\nPARVANE_TAG=" + Tag() +
                        "\nCODE_FILE=" + FileOf(place) + "\nCODE_FUNC=" + place.mFunction +
                        "\nCODE_LINE=" + std::to_string(place.mLine) + "\nMESSAGE=";
    entry.append(text).append("\n");
    return journal.Send(entry) == 0;
}

void Write(const Kind &kind, std::string_view text, const LogPlace &place) noexcept
{
    try {
        if (!SendToJournal(kind, text, place)) {
            WriteAll(STDERR_FILENO,
                     std::string(gName) + ": " + kind.mPrefix + std::string(text) + '\n');
        }
    } catch (const std::bad_alloc &) {
        WriteAll(STDERR_FILENO, "no memory for a log line\n");
    }
}

} // namespace

void SetLogName(const char *name)
{
    gName = name;
}

void LogInfo(std::string_view text, LogPlace place) noexcept
{
    Write({6, ""}, text, place);
}

void LogWarning(std::string_view text, LogPlace place) noexcept
{
    Write({4, "warning: "}, text, place);
}

void LogError(std::string_view text, LogPlace place) noexcept
{
    Write({3, "error: "}, text, place);
}

} // namespace Parvane
