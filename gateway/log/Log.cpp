#include "Log.h"

#include <cstring>
#include <new>
#include <string>
#include <unistd.h>

#include "JournalSocket.h"
#include "JournalStream.h"
#include "Output.h"

namespace ParvaneGateway {

namespace {

constexpr char kJournalPath[] = "/run/systemd/journal/socket";

/** A kind of line: its priority as syslog counts, and what a line begins with. */
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

/** @return whether the journal has taken it */
bool SendToJournal(const Kind &kind, std::string_view text, const LogPlace &place)
{
    static Parvane::JournalSocket journal(kJournalPath);
    static const bool isJournal = Parvane::IsJournalStream(STDERR_FILENO);
    if (!isJournal) {
        return false;
    }
    std::string entry =
        "SYSLOG_IDENTIFIER=parvane-gateway\nPRIORITY=" + std::to_string(kind.mPriority) +
        "\nPARVANE_TAG=gateway\nCODE_FILE=" + FileOf(place) + "\nCODE_FUNC=" + place.mFunction +
        "\nCODE_LINE=" + std::to_string(place.mLine) + "\nMESSAGE=";
    entry.append(text).append("\n");
    return journal.Send(entry) == 0;
}

void Write(const Kind &kind, std::string_view text, const LogPlace &place) noexcept
{
    try {
        if (!SendToJournal(kind, text, place)) {
            Parvane::WriteAll(STDERR_FILENO, kind.mPrefix + std::string(text) + '\n');
        }
    } catch (const std::bad_alloc &) {
        Parvane::WriteAll(STDERR_FILENO, "parvane-gateway: no memory for a log line\n");
    }
}

} // namespace

void LogInfo(std::string_view text, LogPlace place) noexcept
{
    Write({6, "parvane-gateway: "}, text, place);
}

void LogWarning(std::string_view text, LogPlace place) noexcept
{
    Write({4, "parvane-gateway: warning: "}, text, place);
}

void LogError(std::string_view text, LogPlace place) noexcept
{
    Write({3, "parvane-gateway: error: "}, text, place);
}

} // namespace ParvaneGateway
