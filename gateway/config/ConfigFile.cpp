#include "ConfigFile.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <functional>
#include <map>
#include <netinet/in.h>
#include <string_view>
#include <utility>

#include "Printable.h"

namespace ParvaneGateway {

namespace {

constexpr int kMostProblems = 20;
constexpr int kMostPort = 65535;

/** One key: what it may hold, and how it is taken; false when the value is not allowed. */
struct Key
{
    const char *mSection;
    const char *mName;
    const char *mAllowed; // the end of the sentence "it must be ..."
    std::function<bool(const std::string &value, Settings &settings)> mApply;
};

template <typename Field>
auto Boolean(Field field)
{
    return [field](const std::string &text, Settings &settings) {
        const auto value = Parvane::ParseBoolean(text);
        std::invoke(field, settings) = value.value_or(false);
        return value.has_value();
    };
}

/** A path without slashes at its end; a socket's path below it has room. */
bool IsDirectory(const std::string &text)
{
    constexpr std::size_t kMost = 92;
    return text.starts_with('/') && text.size() <= kMost &&
           (text.size() == 1 || !text.ends_with('/'));
}

template <typename Field>
auto Directory(Field field)
{
    return [field](const std::string &text, Settings &settings) {
        std::invoke(field, settings) = text;
        return IsDirectory(text);
    };
}

template <typename Field>
auto OptionalPath(Field field)
{
    return [field](const std::string &text, Settings &settings) {
        std::invoke(field, settings) = text;
        return text.empty() || text.starts_with('/');
    };
}

bool ApplyAddress(const std::string &text, Settings &settings)
{
    std::array<unsigned char, sizeof(in6_addr)> address{};
    settings.mWeb.mAddress = text;
    return ::inet_pton(AF_INET, text.c_str(), address.data()) == 1 ||
           ::inet_pton(AF_INET6, text.c_str(), address.data()) == 1;
}

bool ApplyPort(const std::string &text, Settings &settings)
{
    int port = -1;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), port);
    settings.mWeb.mPort = port;
    return result.ec == std::errc() && result.ptr == text.data() + text.size() && port >= 0 &&
           port <= kMostPort;
}

bool IsOrigin(const std::string &text)
{
    const std::size_t begin =
        text.starts_with("https://") ? 8 : (text.starts_with("http://") ? 7 : 0);
    return begin != 0 && text.size() > begin && text.find('/', begin) == std::string::npos;
}

bool ApplyOrigins(const std::string &text, Settings &settings)
{
    std::vector<std::string> &origins = settings.mWeb.mOrigins;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find(';', begin), text.size());
        origins.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return std::all_of(origins.begin(), origins.end(), IsOrigin);
}

WebSettings &Web(Settings &settings)
{
    return settings.mWeb;
}

template <typename Value>
auto OfWeb(Value WebSettings::*field)
{
    return [field](Settings &settings) -> Value & { return Web(settings).*field; };
}

template <typename Value>
auto OfBluetooth(Value BluetoothSettings::*field)
{
    return [field](Settings &settings) -> Value & { return settings.mBluetooth.*field; };
}

bool ApplyAdapter(const std::string &text, Settings &settings)
{
    settings.mBluetooth.mAdapter = text;
    return text.empty() || (text.size() > 3 && text.starts_with("hci") &&
                            text.find_first_not_of("0123456789", 3) == std::string::npos);
}

bool ApplyName(const std::string &text, Settings &settings)
{
    constexpr std::size_t kMost = 29; // what a scan response holds
    settings.mBluetooth.mName = text;
    return text.size() <= kMost && Parvane::Printable(text) == text;
}

const std::vector<Key> &Schema()
{
    static constexpr char kBoolean[] = "yes, no, true, false, 1 or 0";
    static constexpr char kDirectory[] =
        "an absolute path of at most 92 bytes, without / at its end";
    static constexpr char kPath[] = "an absolute path, or empty";
    static const std::vector<Key> schema = {
        {"watch", "directory", kDirectory, Directory(&Settings::mWatchDirectory)},
        {"web", "enabled", kBoolean, Boolean(OfWeb(&WebSettings::mEnabled))},
        {"web", "address", "an IPv4 or IPv6 address of this host", ApplyAddress},
        {"web", "port", "a whole number from 0 to 65535", ApplyPort},
        {"web", "tls", kBoolean, Boolean(OfWeb(&WebSettings::mTls))},
        {"web", "insecure", kBoolean, Boolean(OfWeb(&WebSettings::mInsecure))},
        {"web", "certificate", kPath, OptionalPath(OfWeb(&WebSettings::mCertificate))},
        {"web", "key", kPath, OptionalPath(OfWeb(&WebSettings::mKey))},
        {"web", "origins", "origins such as https://console.example, with ; between them",
         ApplyOrigins},
        {"bluetooth", "enabled", kBoolean, Boolean(OfBluetooth(&BluetoothSettings::mEnabled))},
        {"bluetooth", "adapter", "an adapter such as hci0, or empty", ApplyAdapter},
        {"bluetooth", "name", "printable text of at most 29 bytes, or empty", ApplyName},
        {"bluetooth", "authenticated", kBoolean,
         Boolean(OfBluetooth(&BluetoothSettings::mIsAuthenticated))},
        {"directories", "state", kDirectory, Directory(&Settings::mStateDirectory)},
        {"directories", "runtime", kDirectory, Directory(&Settings::mRuntimeDirectory)}};
    return schema;
}

/** Goes through the entries of a file. */
class Reader
{
public:
    Configuration Read(std::string_view text);

private:
    void ReadKey(const Parvane::ConfigEntry &entry);
    void CheckTogether();
    void Add(bool isError, int line, std::string text);

    Configuration mResult;
    std::map<std::string, int> mLines;
};

Configuration Reader::Read(std::string_view text)
{
    for (const auto &entry : Parvane::ReadConfigEntries(text, mResult.mProblems)) {
        ReadKey(entry);
    }
    CheckTogether();
    return std::move(mResult);
}

void Reader::ReadKey(const Parvane::ConfigEntry &entry)
{
    const auto &schema = Schema();
    std::vector<std::string> sections;
    std::vector<std::string> keys; // of this one
    for (const Key &one : schema) {
        sections.emplace_back(one.mSection);
        if (entry.mSection == one.mSection) {
            keys.emplace_back(one.mName);
        }
    }
    if (entry.mKey.empty() || keys.empty()) {
        if (keys.empty() && entry.mKey.empty()) {
            Add(false, entry.mLine,
                "unknown section [" + Parvane::Printable(entry.mSection) + "]" +
                    Parvane::KnownAre(std::move(sections)));
        }
        return;
    }
    const auto key = std::find_if(schema.begin(), schema.end(), [&entry](const Key &one) {
        return entry.mSection == one.mSection && entry.mKey == one.mName;
    });
    if (key == schema.end()) {
        Add(false, entry.mLine,
            "unknown key " + entry.Place() + Parvane::KnownAre(std::move(keys)));
        return;
    }
    const auto [earlier, isFirst] = mLines.insert({entry.mSection + '.' + key->mName, entry.mLine});
    if (!isFirst) {
        Add(true, entry.mLine,
            entry.Place() + " stands in line " + std::to_string(earlier->second) + " already");
    } else if (!key->mApply(entry.mValue, mResult.mSettings)) {
        Add(true, entry.mLine,
            entry.Place() + " is '" + Parvane::Printable(entry.mValue, 200) + "': it must be " +
                key->mAllowed);
    }
}

/** What the keys must be to each other. */
void Reader::CheckTogether()
{
    if (mResult.FirstError() != nullptr) {
        return;
    }
    const WebSettings &web = mResult.mSettings.mWeb;
    if (web.mCertificate.empty() != web.mKey.empty()) {
        Add(true, 0, "[web] certificate and key: one without the other is of no use");
    }
    if (web.mEnabled && !web.IsLocal() && !web.mTls && !web.mInsecure) {
        Add(true, mLines["web.address"],
            "[web] address is " + Parvane::Printable(web.mAddress) +
                ", which others reach, and tls is no: it must be yes, or insecure=yes");
    }
}

void Reader::Add(bool isError, int line, std::string text)
{
    mResult.mProblems.push_back({isError, line, std::move(text)});
}

} // namespace

Configuration ParseConfiguration(const std::string &text)
{
    Configuration configuration = Reader().Read(text);
    if (configuration.FirstError() == nullptr && configuration.mProblems.size() > kMostProblems) {
        configuration.mProblems.resize(kMostProblems);
    }
    return configuration;
}

Configuration LoadConfiguration(const std::string &path, bool mustExist)
{
    return ParseConfiguration(Parvane::ReadConfigFile(path, mustExist));
}

std::vector<std::string> ConfigKeys()
{
    std::vector<std::string> keys;
    for (const Key &key : Schema()) {
        keys.push_back(std::string(key.mSection) + '.' + key.mName);
    }
    return keys;
}

} // namespace ParvaneGateway
