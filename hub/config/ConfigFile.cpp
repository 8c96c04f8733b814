#include "ConfigFile.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <functional>
#include <map>
#include <netinet/in.h>
#include <optional>
#include <utility>

#include "Printable.h"
#include "WebTarget.h"

namespace ParvaneHub {

namespace {

constexpr std::size_t kMostProblems = 20;
constexpr int kMostPort = 65535;
constexpr char kWatch[] = "watch";
constexpr std::string_view kLink = "link"; // of one watch alone

/** What an entry is taken into: the file's settings, and one watch of them. */
struct Target
{
    Settings *mSettings = nullptr;
    WatchSettings *mWatch = nullptr;
};

/** One key: what it may hold, and how it is taken; false when the value is not allowed. */
struct Key
{
    const char *mSection; // "watch" stands for [watches] and each [watch NAME]
    const char *mName;
    const char *mAllowed; // the end of the sentence "it must be ..."
    std::function<bool(const std::string &value, const Target &target)> mApply;
};

template <typename Number>
std::optional<Number> ParseNumber(std::string_view text, Number most)
{
    Number number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = result.ec == std::errc() && result.ptr == text.data() + text.size();
    return isNumber && number >= 0 && number <= most ? std::optional(number) : std::nullopt;
}

/** "512K", "64M" or "2G" in bytes. */
std::optional<std::int64_t> ParseSize(std::string_view text)
{
    constexpr std::string_view kUnits = "KMG";
    constexpr std::int64_t kMost = 1024LL * 1024;
    std::int64_t unit = 1;
    if (const auto found = text.empty() ? std::string_view::npos : kUnits.find(text.back());
        found != std::string_view::npos) {
        unit = std::int64_t{1} << (10 * (found + 1));
        text.remove_suffix(1);
    }
    const auto number = ParseNumber<std::int64_t>(text, kMost);
    return number ? std::optional(*number * unit) : std::nullopt;
}

bool IsTopic(const std::string &text)
{
    constexpr std::size_t kMost = 128;
    return text.size() <= kMost && !text.starts_with('$') && !text.starts_with('/') &&
           !text.ends_with('/') && text.find_first_of("+#") == std::string::npos &&
           Parvane::Printable(text) == text;
}

bool IsLink(const std::string &text)
{
    if (text.starts_with("unix:")) {
        return text.size() > 6 && text[5] == '/';
    }
    return ParvaneHost::ParseWebAddress(text).Ok();
}

bool IsFingerprint(const std::string &text)
{
    return text.empty() || ParvaneHost::ParseFingerprint(text);
}

// --- how values are taken: into which member, and what they must be ------------------------------

template <typename Field>
using Taking = std::function<Field &(const Target &)>;

auto Text(const Taking<std::string> &field, bool (*isAllowed)(const std::string &))
{
    return [=](const std::string &text, const Target &target) {
        field(target) = text;
        return isAllowed(text);
    };
}

auto Boolean(const Taking<bool> &field)
{
    return [=](const std::string &text, const Target &target) {
        const auto value = Parvane::ParseBoolean(text);
        field(target) = value.value_or(false);
        return value.has_value();
    };
}

/** @param leastS  0 and "no" are allowed as well where it is below 0, and the least is its size */
auto Length(const Taking<std::chrono::seconds> &field, long long leastS)
{
    return [=](const std::string &text, const Target &target) {
        const bool isNone = leastS < 0 && (text == "no" || text == "0");
        const auto length = isNone ? std::optional(0LL) : Parvane::ParseLength(text);
        field(target) = std::chrono::seconds(length.value_or(0));
        return isNone || length.value_or(0) >= std::abs(leastS);
    };
}

template <typename Value>
Taking<Value> OfBroker(Value BrokerSettings::*field)
{
    return [=](const Target &target) -> Value & { return target.mSettings->mBroker.*field; };
}

template <typename Value>
Taking<Value> OfAll(Value Settings::*field)
{
    return [=](const Target &target) -> Value & { return target.mSettings->*field; };
}

template <typename Value>
Taking<Value> OfWatch(Value WatchSettings::*field)
{
    return [=](const Target &target) -> Value & { return target.mWatch->*field; };
}

template <typename Value>
Taking<Value> OfWishes(Value Wishes::*field)
{
    return [=](const Target &target) -> Value & { return target.mWatch->mWishes.*field; };
}

bool IsPath(const std::string &text)
{
    return text.empty() || text.starts_with('/');
}

bool IsDirectory(const std::string &text)
{
    constexpr std::size_t kMost = 92; // a socket's path below it has room
    return text.starts_with('/') && text.size() <= kMost && !text.ends_with('/');
}

bool IsShortText(const std::string &text)
{
    constexpr std::size_t kMost = 256;
    return text.size() <= kMost && Parvane::Printable(text) == text;
}

bool IsHost(const std::string &text)
{
    return !text.empty() && IsShortText(text) && text.find_first_of(" /") == std::string::npos;
}

bool IsPrefix(const std::string &text)
{
    return !text.empty() && IsTopic(text);
}

bool IsListen(const std::string &text)
{
    return text.empty() || !ParseListen(text).mAddress.empty();
}

bool ApplyPort(const std::string &text, const Target &target)
{
    const auto port = ParseNumber(text, kMostPort);
    target.mSettings->mBroker.mPort = port.value_or(0);
    return port.has_value();
}

bool ApplyProtocol(const std::string &text, const Target &target)
{
    target.mSettings->mBroker.mIsVersion5 = text == "5";
    return text == "5" || text == "3.1.1";
}

bool ApplySize(const std::string &text, const Target &target)
{
    constexpr std::int64_t kLeast = 65536;
    const auto size = ParseSize(text);
    target.mSettings->mQueue.mMostBytes = size.value_or(0);
    return size.value_or(0) >= kLeast;
}

std::vector<Key> BrokerKeys()
{
    static constexpr char kPath[] = "an absolute path, or empty";
    static constexpr char kText[] = "printable text of at most 256 bytes";
    return {
        {"broker", "host", "the name or the address of a host",
         Text(OfBroker(&BrokerSettings::mHost), IsHost)},
        {"broker", "port", "a whole number from 0 to 65535", ApplyPort},
        {"broker", "protocol", "3.1.1 or 5", ApplyProtocol},
        {"broker", "client_id", kText, Text(OfBroker(&BrokerSettings::mClientId), IsShortText)},
        {"broker", "user", kText, Text(OfBroker(&BrokerSettings::mUser), IsShortText)},
        {"broker", "password_file", kPath, Text(OfBroker(&BrokerSettings::mPasswordFile), IsPath)},
        {"broker", "tls", "yes or no", Boolean(OfBroker(&BrokerSettings::mTls))},
        {"broker", "authorities", kPath, Text(OfBroker(&BrokerSettings::mAuthorities), IsPath)},
        {"broker", "certificate", kPath, Text(OfBroker(&BrokerSettings::mCertificate), IsPath)},
        {"broker", "key", kPath, Text(OfBroker(&BrokerSettings::mKey), IsPath)},
        {"broker", "keep_alive", "a length from 5s on",
         Length(OfBroker(&BrokerSettings::mKeepAlive), 5)}};
}

std::vector<Key> OtherKeys()
{
    static constexpr char kDirectory[] =
        "an absolute path of at most 92 bytes, without / at its end";
    return {
        {"topics", "prefix", "levels of a topic without + and #",
         Text(OfAll(&Settings::mTopic), IsPrefix)},
        {"topics", "discovery", "levels of a topic without + and #, or empty",
         Text(OfAll(&Settings::mDiscovery), IsTopic)},
        {"queue", "size", "a size such as 512K, 64M or 2G, from 64K on", ApplySize},
        {"queue", "age", "a length such as 12h or 7d, from 60s on",
         Length(
             [](const Target &target) -> auto & { return target.mSettings->mQueue.mMostAge; }, 60)},
        {"metrics", "listen", "ADDRESS:PORT, [ADDRESS]:PORT for IPv6, or empty",
         Text(OfAll(&Settings::mMetrics), IsListen)},
        {"directories", "state", kDirectory, Text(OfAll(&Settings::mStateDirectory), IsDirectory)},
        {"directories", "runtime", kDirectory,
         Text(OfAll(&Settings::mRuntimeDirectory), IsDirectory)},
        {kWatch, "link", "unix:/PATH, ws://HOST:PORT or wss://HOST:PORT",
         Text(OfWatch(&WatchSettings::mLink), IsLink)},
        {kWatch, "token_file", "an absolute path, or empty",
         Text(OfWatch(&WatchSettings::mTokenFile), IsPath)},
        {kWatch, "fingerprint", "64 hexadecimal digits, with or without : between them",
         Text(OfWatch(&WatchSettings::mFingerprint), IsFingerprint)},
        {kWatch, "heart_rate", "no, or a length such as 15m, from 30s on",
         Length(OfWishes(&Wishes::mHeartRate), -30)},
        {kWatch, "worn", "no, or a length such as 15m, from 10s on",
         Length(OfWishes(&Wishes::mWorn), -10)},
        {kWatch, "steps", "yes or no", Boolean(OfWishes(&Wishes::mSteps))},
        {kWatch, "activity", "yes or no", Boolean(OfWishes(&Wishes::mActivity))}};
}

const std::vector<Key> &Schema()
{
    static const std::vector<Key> schema = [] {
        std::vector<Key> keys = BrokerKeys();
        for (Key &key : OtherKeys()) {
            keys.push_back(std::move(key));
        }
        return keys;
    }();
    return schema;
}

std::vector<std::string> KnownSections()
{
    std::vector<std::string> sections;
    for (const Key &key : Schema()) {
        sections.emplace_back(key.mSection == std::string_view(kWatch) ? "watches" : key.mSection);
    }
    sections.emplace_back("watch NAME");
    return sections;
}

/** Goes through the entries of a file. */
class Reader
{
public:
    Configuration Read(std::string_view text);

private:
    void BeginSection(const Parvane::ConfigEntry &entry);
    void ReadKey(const Parvane::ConfigEntry &entry);
    void CheckTogether();
    void Add(bool isError, int line, std::string text)
    {
        mResult.mProblems.push_back({isError, line, std::move(text)});
    }

    Configuration mResult;
    WatchSettings mDefaults;
    const char *mKind = nullptr; // of the section; null for one that is not known
    std::map<std::string, int> mLines;
};

/** The name behind "watch " in a section's. */
std::optional<std::string> NameIn(const std::string &section)
{
    constexpr std::string_view kBegin = "watch ";
    return section.starts_with(kBegin) ? std::optional(section.substr(kBegin.size()))
                                       : std::nullopt;
}

Configuration Reader::Read(std::string_view text)
{
    const auto entries = Parvane::ReadConfigEntries(text, mResult.mProblems);
    for (const bool isOfDefaults : {true, false}) {
        for (const auto &entry : entries) {
            if ((entry.mSection == "watches") == isOfDefaults) {
                entry.mKey.empty() ? BeginSection(entry) : ReadKey(entry);
            }
        }
    }
    CheckTogether();
    auto &problems = mResult.mProblems;
    std::stable_sort(problems.begin(), problems.end(),
                     [](const auto &one, const auto &other) { return one.mLine < other.mLine; });
    if (Parvane::FirstError(problems) == nullptr && problems.size() > kMostProblems) {
        problems.resize(kMostProblems);
    }
    return std::move(mResult);
}

void Reader::BeginSection(const Parvane::ConfigEntry &entry)
{
    const auto name = NameIn(entry.mSection);
    const std::string kind = name || entry.mSection == "watches" ? kWatch : entry.mSection;
    const auto &schema = Schema();
    const auto found = std::find_if(schema.begin(), schema.end(),
                                    [&kind](const Key &key) { return kind == key.mSection; });
    const bool isKnown = found != schema.end() && entry.mSection != kWatch;
    mKind = isKnown ? found->mSection : nullptr;
    if (!isKnown) {
        Add(false, entry.mLine,
            "unknown section [" + Parvane::Printable(entry.mSection) + "]" +
                Parvane::KnownAre(KnownSections()));
    } else if (name && !IsWatchName(*name)) {
        mKind = nullptr;
        Add(true, entry.mLine,
            "[" + Parvane::Printable(entry.mSection) +
                "]: a watch's name is 1 to 64 of A-Z, a-z, 0-9, _ and -");
    } else if (name && !mResult.mSettings.mWatches.try_emplace(*name, mDefaults).second) {
        Add(true, entry.mLine, "[" + entry.mSection + "] stands here for the second time");
    }
}

void Reader::ReadKey(const Parvane::ConfigEntry &entry)
{
    if (mKind == nullptr) {
        return;
    }
    const auto &schema = Schema();
    const auto key = std::find_if(schema.begin(), schema.end(), [&](const Key &one) {
        return std::string_view(mKind) == one.mSection && entry.mKey == one.mName;
    });
    const auto name = NameIn(entry.mSection);
    const bool isOfOne = entry.mKey == kLink;
    if (key == schema.end() || (mKind == std::string_view(kWatch) && !name && isOfOne)) {
        std::vector<std::string> keys;
        for (const Key &one : schema) {
            if (std::string_view(mKind) == one.mSection && (name || one.mName != kLink)) {
                keys.emplace_back(one.mName);
            }
        }
        Add(false, entry.mLine,
            "unknown key " + entry.Place() + Parvane::KnownAre(std::move(keys)));
        return;
    }
    const auto [earlier, isFirst] = mLines.insert({entry.Place(), entry.mLine});
    const Target target{&mResult.mSettings, name ? &mResult.mSettings.mWatches[*name] : &mDefaults};
    if (!isFirst) {
        Add(true, entry.mLine,
            entry.Place() + " stands in line " + std::to_string(earlier->second) + " already");
    } else if (!key->mApply(entry.mValue, target)) {
        Add(true, entry.mLine,
            entry.Place() + " is '" + Parvane::Printable(entry.mValue, 200) + "': it must be " +
                key->mAllowed);
    }
}

/** What the keys must be to each other. */
void Reader::CheckTogether()
{
    if (Parvane::FirstError(mResult.mProblems) != nullptr) {
        return;
    }
    if (mResult.mSettings.mWatches.empty()) {
        Add(false, 0, "there is no section [watch NAME]: nobody is followed");
    }
    const BrokerSettings &broker = mResult.mSettings.mBroker;
    if (broker.mCertificate.empty() != broker.mKey.empty()) {
        Add(true, 0, "[broker] certificate and key: one without the other is of no use");
    }
    if (!broker.mTls && !(broker.mCertificate + broker.mAuthorities).empty()) {
        Add(true, 0, "[broker] authorities and certificate are of no use without tls=yes");
    }
    if (broker.mUser.empty() && !broker.mPasswordFile.empty()) {
        Add(true, 0, "[broker] password_file is of no use without user");
    }
    const bool isLocal =
        broker.mHost == "localhost" || broker.mHost == "::1" || broker.mHost.starts_with("127.");
    if (!broker.mTls && !isLocal) {
        Add(false, mLines["[broker] host"],
            "[broker] host is another machine and tls is no: readings and password can be read on "
            "their way");
    }
    for (const auto &[name, watch] : mResult.mSettings.mWatches) {
        const std::string place = "[watch " + name + "]";
        const bool isSocket = watch.mLink.starts_with("unix:");
        if (watch.mLink.empty()) {
            Add(true, 0, place + " has no link");
        } else if (!isSocket && watch.mTokenFile.empty()) {
            Add(true, 0, place + " needs a token_file");
        } else if (!watch.mFingerprint.empty() && !watch.mLink.starts_with("wss:")) {
            Add(true, 0, place + " has a fingerprint, and its link no TLS");
        }
    }
}

} // namespace

Configuration ParseConfiguration(std::string_view text)
{
    return Reader().Read(text);
}

bool IsWatchName(std::string_view name)
{
    constexpr std::size_t kMost = 64;
    return !name.empty() && name.size() <= kMost &&
           name.find_first_not_of(
               "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-") ==
               std::string_view::npos;
}

Listen ParseListen(const std::string &text)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return {};
    }
    std::string address = text.substr(0, colon);
    const bool isV6 = address.starts_with('[') && address.ends_with(']');
    if (isV6) {
        address = address.substr(1, address.size() - 2);
    }
    std::array<unsigned char, sizeof(in6_addr)> bytes{};
    const auto port = ParseNumber(std::string_view(text).substr(colon + 1), kMostPort);
    const int family = isV6 ? AF_INET6 : AF_INET;
    if (!port || ::inet_pton(family, address.c_str(), bytes.data()) != 1) {
        return {};
    }
    return {address, *port};
}

std::vector<std::string> ConfigKeys()
{
    std::vector<std::string> keys;
    for (const Key &key : Schema()) {
        keys.push_back(std::string(key.mSection) + '.' + key.mName);
    }
    return keys;
}

} // namespace ParvaneHub
