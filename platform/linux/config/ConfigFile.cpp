#include "ConfigFile.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include <glib.h>

#include "ConfigSchema.h"
#include "Files.h"
#include "MessageText.h"
#include "Released.h"
#include "StartupError.h"

namespace ParvanePlatform {

namespace {

using KeyFilePtr = std::unique_ptr<GKeyFile, Parvane::Released<g_key_file_free>>;
using ErrorPtr = std::unique_ptr<GError, Parvane::Released<g_error_free>>;

std::string_view Trim(std::string_view text)
{
    while (!text.empty() && g_ascii_isspace(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && g_ascii_isspace(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

/** The lines of a text, without the blanks around each. */
std::vector<std::string_view> LinesOf(std::string_view text)
{
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        lines.push_back(Trim(text.substr(0, end)));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

int LineAt(std::string_view text, std::size_t offset)
{
    const std::string_view before = text.substr(0, offset);
    return 1 + static_cast<int>(std::count(before.begin(), before.end(), '\n'));
}

void AddToList(std::string &list, const std::string &word)
{
    list.append(list.empty() ? "" : ", ").append(word);
}

/** The keys of each section, as a list for a message. */
std::map<std::string, std::string> KeysOfSections()
{
    std::map<std::string, std::string> keys;
    for (const ConfigKey &key : ConfigSchema()) {
        AddToList(keys[key.mSection], key.mName);
    }
    return keys;
}

std::string ListOfSections()
{
    std::string list;
    for (const std::string &section : ConfigSections()) {
        AddToList(list, section);
    }
    return list;
}

/** Reads a key file into `file`. Returns why it is none, or nothing. */
std::string ReadKeyFile(std::string_view text, KeyFilePtr &file)
{
    file.reset(g_key_file_new());
    GError *failure = nullptr;
    g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_KEEP_TRANSLATIONS,
                              &failure);
    const ErrorPtr owned(failure);
    return owned ? Printable(owned->message) : std::string();
}

/**
 * The line for which a text is no key file. GLib does not tell it, but takes every beginning of the
 * text that ends before that line and no other, so that halving finds it.
 */
int LineOfFailure(std::string_view text)
{
    std::vector<std::size_t> ends;
    for (std::size_t end = text.find('\n'); end != text.npos; end = text.find('\n', end + 1)) {
        ends.push_back(end + 1);
    }
    const auto isGood = [text](std::size_t end) {
        KeyFilePtr file;
        return ReadKeyFile(text.substr(0, end), file).empty();
    };
    const auto bad = std::partition_point(ends.begin(), ends.end(), isGood);
    return 1 + static_cast<int>(bad - ends.begin());
}

/** Reads one text. */
class Reader
{
public:
    Reader(const std::string &path, const std::string &trace) : mPath(path), mTrace(trace) {}

    Configuration Read(std::string_view text);

private:
    using Name = ConfigName;
    using Severity = ConfigProblem::Severity;

    bool IsText(std::string_view text);
    bool LoadKeyFile(const std::vector<std::string_view> &lines);
    void FindKeys(const std::vector<std::string_view> &lines);
    void FindSection(int line, const std::string &section);
    void FindKey(int line, const Name &name);
    void ApplyKeys();
    std::optional<std::vector<std::string>> ValueOf(const ConfigKey &key) const;
    std::string RawValueOf(const Name &name) const;
    void CheckStall();
    void ResolveFiles();
    void ResolveSources();

    bool IsPresent(const Name &name) const { return mResult.mLines.contains(name); }
    void Add(Severity severity, int line, const Name &name, std::string text);
    /** Adds an error: the value of a key, and what it must be. */
    void Refuse(const Name &name, const std::string &reason);

    const std::string &mPath;
    const std::string &mTrace;
    KeyFilePtr mFile;
    /** The keys that there are, by section. */
    const std::map<std::string, std::string> mKnown = KeysOfSections();
    const std::string mSections = ListOfSections();
    /** What has been told to be unknown. */
    std::set<Name> mUnknown;
    std::set<Name> mRefused;
    Configuration mResult;
};

Configuration Reader::Read(std::string_view text)
{
    text = WithoutByteOrderMark(text);
    if (IsText(text)) {
        const std::vector<std::string_view> lines = LinesOf(text);
        if (LoadKeyFile(lines)) {
            FindKeys(lines);
            ApplyKeys();
            CheckStall();
            ResolveFiles();
            ResolveSources();
        }
    }
    std::stable_sort(mResult.mProblems.begin(), mResult.mProblems.end(),
                     [](const auto &left, const auto &right) { return left.mLine < right.mLine; });
    return std::move(mResult);
}

bool Reader::IsText(std::string_view text)
{
    if (const std::size_t offset = text.find('\0'); offset != std::string_view::npos) {
        Add(Severity::Error, LineAt(text, offset), {}, "there is a NUL byte in it");
        return false;
    }
    const char *end = nullptr;
    if (g_utf8_validate_len(text.data(), text.size(), &end) == FALSE) {
        const auto offset = static_cast<std::size_t>(end - text.data());
        Add(Severity::Error, LineAt(text, offset), {}, "it is not UTF-8 text");
        return false;
    }
    return true;
}

bool Reader::LoadKeyFile(const std::vector<std::string_view> &lines)
{
    // GLib would keep the blanks at the end of a value.
    std::string text;
    for (const std::string_view line : lines) {
        text.append(line) += '\n';
    }
    const std::string failure = ReadKeyFile(text, mFile);
    if (!failure.empty()) {
        Add(Severity::Error, LineOfFailure(text), {}, failure);
    }
    return failure.empty();
}

/** GLib does not tell where a key stands; what it has accepted is easily found. */
void Reader::FindKeys(const std::vector<std::string_view> &lines)
{
    std::string section;
    int number = 0;
    for (const std::string_view line : lines) {
        ++number;
        if (line.empty() || line.front() == '#') {
            continue;
        }
        if (line.front() == '[') {
            section = line.substr(1, line.find(']') - 1);
            FindSection(number, section);
        } else {
            FindKey(number, {section, std::string(Trim(line.substr(0, line.find('='))))});
        }
    }
}

void Reader::FindSection(int line, const std::string &section)
{
    if (mKnown.contains(section) || !mUnknown.insert({section, ""}).second) {
        return;
    }
    Add(Severity::Warning, line, {section, ""},
        "unknown section [" + Printable(section) + "]; known are " + mSections);
}

void Reader::FindKey(int line, const Name &name)
{
    const auto &[section, key] = name;
    const auto known = mKnown.find(section);
    if (known == mKnown.end()) {
        return; // the section has been told to be unknown
    }
    if (FindConfigKey(section, key) == nullptr) {
        if (mUnknown.insert(name).second) {
            Add(Severity::Warning, line, name,
                "unknown key '" + Printable(key) + "' in [" + section + "]; known are " +
                    known->second);
        }
        return;
    }
    if (const auto found = mResult.mLines.find(name); found != mResult.mLines.end()) {
        Add(Severity::Warning, line, name,
            "[" + section + "] " + key + " stands in line " + std::to_string(found->second) +
                " already; the last one counts");
    }
    mResult.mLines[name] = line;
}

void Reader::ApplyKeys()
{
    for (const ConfigKey &key : ConfigSchema()) {
        const Name name(key.mSection, key.mName);
        if (!IsPresent(name)) {
            continue;
        }
        const auto value = ValueOf(key);
        if (!value) {
            Refuse(name, "a backslash must be followed by one of s n t r \\" +
                             std::string(key.mIsList ? " ;" : "") + ", and it must be " +
                             key.mAllowed);
        } else if (!key.mApply(*value, mResult.mSettings)) {
            Refuse(name, "it must be " + key.mAllowed);
        }
    }
}

/** Without its escapes; empty when one of them is none. */
std::optional<std::vector<std::string>> Reader::ValueOf(const ConfigKey &key) const
{
    const char *section = key.mSection.c_str();
    const char *name = key.mName.c_str();
    GError *failure = nullptr;
    std::vector<std::string> value;
    if (key.mIsList) {
        gsize count = 0;
        const std::unique_ptr<char *, Parvane::Released<g_strfreev>> list(
            g_key_file_get_string_list(mFile.get(), section, name, &count, &failure));
        if (list) {
            value.assign(list.get(), list.get() + count);
        }
    } else {
        const std::unique_ptr<char, Parvane::Released<g_free>> text(
            g_key_file_get_string(mFile.get(), section, name, &failure));
        if (text) {
            value.emplace_back(text.get());
        }
    }
    const ErrorPtr owned(failure);
    return owned ? std::nullopt : std::optional(std::move(value));
}

std::string Reader::RawValueOf(const Name &name) const
{
    const std::unique_ptr<char, Parvane::Released<g_free>> text(
        g_key_file_get_value(mFile.get(), name.first.c_str(), name.second.c_str(), nullptr));
    return text ? text.get() : "";
}

/** What the two numbers must be to each other. */
void Reader::CheckStall()
{
    const Name stall("memory", "stall_ms");
    const Name window("memory", "window_ms");
    const MemorySettings &memory = mResult.mSettings.mMemory;
    const bool areNumbers = !mRefused.contains(stall) && !mRefused.contains(window);
    if (areNumbers && memory.mStallMs >= memory.mWindowMs) {
        Refuse(stall,
               "it must be less than window_ms, which is " + std::to_string(memory.mWindowMs));
    }
}

/** Makes the names of recordings independent of the working directory. */
void Reader::ResolveFiles()
{
    std::vector<std::string> &files = mResult.mSettings.mReplay.mFiles;
    if (!mTrace.empty()) {
        files = {mTrace};
        return;
    }
    std::string directory = ParentOf(mPath);
    if (directory.back() != '/') {
        directory += '/';
    }
    for (std::string &file : files) {
        if (file.front() != '/') {
            file.insert(0, directory);
        }
    }
}

void Reader::ResolveSources()
{
    const bool hasFiles = !mResult.mSettings.mReplay.mFiles.empty();
    const bool isUnclear = mTrace.empty() && mRefused.contains({"replay", "files"});
    for (const SensorItem &item : kSensorItems) {
        const Name name(kSensorSection, item.mKey);
        SourceKind &source = mResult.mSettings.mSensors.*item.mSource;
        if (!IsPresent(name)) {
            source = hasFiles ? SourceKind::Replay : SourceKind::None;
        } else if (source == SourceKind::Replay && !hasFiles && !isUnclear) {
            Refuse(name, "there must be a recording then, in [replay] files or PARVANE_TRACE");
        }
    }
}

void Reader::Add(Severity severity, int line, const Name &name, std::string text)
{
    mResult.mProblems.push_back(
        {severity, line, Printable(name.first), Printable(name.second), std::move(text)});
}

void Reader::Refuse(const Name &name, const std::string &reason)
{
    mRefused.insert(name);
    const auto &[section, key] = name;
    Add(Severity::Error, mResult.mLines.at(name), name,
        "[" + section + "] " + key + " is '" + Printable(RawValueOf(name)) + "': " + reason);
}

} // namespace

std::string ToString(const std::string &path, const ConfigProblem &problem)
{
    const std::string line =
        problem.mLine > 0 ? "line " + std::to_string(problem.mLine) + ": " : std::string();
    return PrintablePath(path) + ": " + line + problem.mText;
}

const ConfigProblem *Configuration::FirstError() const
{
    for (const ConfigProblem &problem : mProblems) {
        if (problem.mSeverity == ConfigProblem::Severity::Error) {
            return &problem;
        }
    }
    return nullptr;
}

Configuration ParseConfiguration(const std::string &path, std::string_view text,
                                 const std::string &trace)
{
    return Reader(path, trace).Read(text);
}

Configuration LoadConfiguration(const std::string &path, IfMissing ifMissing,
                                const std::string &trace)
{
    std::string text;
    const int error = ReadWholeFile(path, kMaxConfigBytes, text);
    if (error != 0 && (error != ENOENT || ifMissing == IfMissing::Fail)) {
        const std::string reason = error == EFBIG ? "it is longer than 1 MiB" : ErrorText(error);
        throw StartupError("cannot read the configuration file " + PrintablePath(path) + ": " +
                           reason);
    }
    Configuration configuration = ParseConfiguration(path, text, trace);
    configuration.mHasFile = error == 0;
    return configuration;
}

} // namespace ParvanePlatform
