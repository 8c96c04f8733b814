#include "ExportCommand.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include "CaptureReader.h"
#include "ErrnoText.h"
#include "ExportText.h"
#include "Output.h"
#include "Printable.h"
#include "ReadingLog.h"
#include "RegularFile.h"
#include "StepsKeeper.h"
#include "Tcx.h"
#include "UniqueFd.h"

namespace ParvaneHost {

namespace {

using Parvane::UniqueFd;

/** What ends the command; one line for people. */
class ExportError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

Bytes ReadAll(const std::string &path)
{
    constexpr std::size_t kMost = std::size_t{256} * 1024 * 1024;
    std::string content;
    if (const int error = Parvane::ReadWholeFile(path, kMost, content); error != 0) {
        throw ExportError("cannot read '" + path + "': " + Parvane::ErrnoText(error) +
                          (error == EFBIG ? " (at most 256 MiB are read)" : ""));
    }
    return {content.begin(), content.end()};
}

ReadingLog ReadLog(const std::vector<std::string> &captures)
{
    ReadingLog log(SystemZone);
    for (const std::string &path : captures) {
        const auto messages = ReadCapture(ReadAll(path));
        if (!messages) {
            throw ExportError("'" + path + "' is not exported: " + messages.GetError());
        }
        log.Add(messages.Value());
    }
    return log;
}

std::string TextOf(const std::vector<LogEntry> &log, ExportFormat format)
{
    switch (format) {
    case ExportFormat::Csv:
        return CsvText(log, SystemZone);
    case ExportFormat::JsonLines:
        return JsonLinesText(log, SystemZone);
    case ExportFormat::Tcx:
        if (FindTrainings(log).empty()) {
            throw ExportError("there is no training in it: nobody has walked or run");
        }
        return TcxText(log);
    case ExportFormat::Recording:
        break;
    }
    std::string text = RecordingText(log, SystemZone);
    if (text.empty()) {
        throw ExportError("there is nothing in it that could be played");
    }
    return text;
}

void Write(const std::string &text, const Invocation &invocation)
{
    if (!invocation.mOutputPath) {
        const int error = Parvane::WriteAll(STDOUT_FILENO, text);
        if (error != 0 && error != EPIPE) { // a reader that has gone wants no more
            throw ExportError("cannot write to standard output: " + Parvane::ErrnoText(error));
        }
        return;
    }
    constexpr int kOwnerOnly = 0600; // somebody's heart rate
    const std::string &path = *invocation.mOutputPath;
    UniqueFd file;
    int error = Parvane::MakeFile(path, invocation.mForce, 0, kOwnerOnly, file);
    error = error == 0 ? Parvane::WriteAll(file.Get(), text) : error;
    if (error != 0) {
        throw ExportError("cannot write '" + path + "': " + Parvane::ErrnoText(error) +
                          (error == EEXIST ? " (--force overwrites it)" : ""));
    }
}

} // namespace

Outcome Export(const Invocation &invocation)
{
    try {
        const ReadingLog log = ReadLog(invocation.mCaptures);
        if (log.Entries().empty()) {
            throw ExportError("there is no reading in it");
        }
        Write(TextOf(log.Entries(), invocation.mFormat), invocation);
        return {};
    } catch (const ExportError &failure) {
        Parvane::WriteAll(STDERR_FILENO,
                          "parvane-host: export: " + Parvane::Printable(failure.what()) + '\n');
        return {ExitCode::Failure};
    }
}

} // namespace ParvaneHost
