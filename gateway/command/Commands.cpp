#include "Commands.h"

#include <array>
#include <chrono>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "Certificate.h"
#include "ConfigFile.h"
#include "Fingerprint.h"
#include "Log.h"
#include "ObjectPtr.h"
#include "OperationSocket.h"
#include "Output.h"
#include "Pairing.h"
#include "Printable.h"
#include "QrCode.h"
#include "TokenStore.h"

namespace ParvaneGateway {

namespace {

/** Keeps the members in the order in which they are written here. */
using Json = nlohmann::ordered_json;
using Parvane::Print;

/** Of any year: time_t may have 32 bits. */
std::string TimeText(std::int64_t seconds)
{
    const std::unique_ptr<GDateTime, decltype(&g_date_time_unref)> time(
        g_date_time_new_from_unix_utc(seconds), g_date_time_unref);
    const Parvane::GlibText text(time ? g_date_time_format(time.get(), "%Y-%m-%dT%H:%M:%SZ")
                                      : nullptr);
    return text ? text.get() : "never";
}

/** The certificate's fingerprint; empty where there is none yet. */
std::string Fingerprint(const Settings &settings)
{
    const WebSettings &web = settings.mWeb;
    const bool isOwn = web.mCertificate.empty();
    try {
        return Parvane::FingerprintOf(
            LoadCertificate(isOwn ? settings.mStateDirectory + "/certificate.pem"
                                  : web.mCertificate,
                            isOwn ? settings.mStateDirectory + "/key.pem" : web.mKey,
                            HostNames(web.mAddress), isOwn)
                .get());
    } catch (const std::runtime_error &) {
        return {};
    }
}

/** Where a browser finds the console. */
std::string ConsoleAddress(const WebSettings &web)
{
    std::string host = web.mAddress;
    if (host == "0.0.0.0" || host == "::") {
        std::array<char, 256> name{};
        ::gethostname(name.data(), name.size() - 1);
        host = name.data();
    }
    const bool isV6 = host.find(':') != std::string::npos;
    return (web.mTls ? "https://" : "http://") + (isV6 ? '[' + host + ']' : host) + ':' +
           std::to_string(web.mPort) + '/';
}

ExitCode AddToken(const Invocation &invocation, const Settings &settings)
{
    const std::int64_t ends = invocation.mForS == 0 ? 0 : std::time(nullptr) + invocation.mForS;
    const std::string secret =
        TokenFile(settings.mStateDirectory).Add(invocation.mName, invocation.mScope, ends);
    const std::string fingerprint = settings.mWeb.mTls ? Fingerprint(settings) : "";
    // Behind '#', a browser keeps it to itself.
    const std::string address = ConsoleAddress(settings.mWeb) + "#token=" + secret +
                                (fingerprint.empty() ? "" : "&sha256=" + fingerprint);
    if (invocation.mJson) {
        Print(Json{{"name", invocation.mName}, {"token", secret}, {"address", address}}.dump() +
              '\n');
        return ExitCode::Success;
    }
    Print("token    " + secret + "\naddress  " + address + '\n');
    if (!invocation.mNoQr && ::isatty(STDOUT_FILENO) == 1) {
        Print(QrCode(address));
    }
    Print("It is not shown again.\n");
    if (const WebSettings &web = settings.mWeb; !web.mEnabled) {
        Print("Nobody comes over the network: [web] enabled is no in " + invocation.mConfig +
              ".\n");
    } else if (web.IsLocal()) {
        Print("Others do not reach that address: [web] address in " + invocation.mConfig +
              " opens another, such as 0.0.0.0.\n");
    }
    return ExitCode::Success;
}

ExitCode ListTokens(const Invocation &invocation, const Settings &settings)
{
    Json list = Json::array();
    std::string text;
    const std::int64_t now = std::time(nullptr);
    for (const Token &token : TokenFile(settings.mStateDirectory).Load()) {
        const std::string ends = token.mEnds == 0 ? "" : TimeText(token.mEnds);
        list.push_back({{"name", token.mName},
                        {"scope", NameOf(token.mScope)},
                        {"created", TimeText(token.mCreated)},
                        {"ends", ends.empty() ? Json() : Json(ends)},
                        {"ended", token.HasEnded(now)}});
        text += token.mName + "  " + NameOf(token.mScope) + "  since " + TimeText(token.mCreated) +
                (ends.empty() ? "" : (token.HasEnded(now) ? ", ended " : ", until ") + ends) + '\n';
    }
    Print(invocation.mJson ? Json{{"tokens", list}}.dump() + '\n'
                           : (text.empty() ? "no tokens\n" : text));
    return ExitCode::Success;
}

ExitCode RemoveToken(const Invocation &invocation, const Settings &settings)
{
    if (!TokenFile(settings.mStateDirectory).Remove(invocation.mName)) {
        throw std::runtime_error("there is no token of the name " + invocation.mName +
                                 "; 'parvane-gateway token list' names those that there are");
    }
    return ExitCode::Success;
}

std::string Line(const std::string &what, const std::string &value)
{
    constexpr std::size_t kWidth = 13;
    return what + std::string(kWidth - what.size(), ' ') + value + '\n';
}

std::string StatusText(const nlohmann::json &status)
{
    std::string text;
    const auto &phone = status.at("phone");
    text += Line("phone", phone.is_null() ? "none"
                                          : phone.at("name").get<std::string>() + " by " +
                                                phone.at("road").get<std::string>() + " since " +
                                                phone.at("since").get<std::string>());
    text += Line("packets", std::to_string(status.at("packets_to_watch").get<std::uint64_t>()) +
                                " to the watch, " +
                                std::to_string(status.at("packets_to_phone").get<std::uint64_t>()) +
                                " to phones");
    for (const auto &[name, road] : status.at("roads").items()) {
        text += Line(name, road.at("text").get<std::string>());
        if (road.contains("fingerprint")) {
            text += Line("fingerprint", "SHA-256 " + road["fingerprint"].get<std::string>());
        }
    }
    std::string refusals;
    for (const auto &[reason, count] : status.at("refusals").items()) {
        if (count != 0) {
            refusals += Line("refused", std::to_string(count.get<std::uint64_t>()) + ' ' + reason);
        }
    }
    return text + (refusals.empty() ? Line("refused", "nobody") : refusals);
}

ExitCode ShowStatus(const Invocation &invocation, const Settings &settings)
{
    const nlohmann::json status = Parvane::OperationSocket::Ask(settings.mRuntimeDirectory,
                                                                "gateway", {{"request", "status"}});
    Print(invocation.mJson ? status.dump() + '\n' : StatusText(status));
    return ExitCode::Success;
}

/** At BlueZ, without the gateway: docs/transports.md says why. */
ExitCode Pair(const Invocation &invocation, const Settings &settings)
{
    return RunPairing({settings.mBluetooth.mAdapter, std::chrono::seconds(invocation.mForS),
                       invocation.mYes})
               ? ExitCode::Success
               : ExitCode::Failure;
}

} // namespace

ExitCode RunCommand(const Invocation &invocation, const Settings &settings)
{
    switch (invocation.mAction) {
    case Invocation::Action::TokenAdd:
        return AddToken(invocation, settings);
    case Invocation::Action::TokenList:
        return ListTokens(invocation, settings);
    case Invocation::Action::TokenRemove:
        return RemoveToken(invocation, settings);
    case Invocation::Action::Status:
        return ShowStatus(invocation, settings);
    case Invocation::Action::Pair:
        return Pair(invocation, settings);
    case Invocation::Action::CheckConfig:
    case Invocation::Action::Serve:
        break;
    }
    return CheckConfig(invocation);
}

ExitCode CheckConfig(const Invocation &invocation)
{
    Configuration configuration;
    try {
        configuration = LoadConfiguration(invocation.mConfig, invocation.mIsConfigNamed);
    } catch (const std::runtime_error &failure) {
        Parvane::LogError(failure.what());
        return ExitCode::BadUsage;
    }
    Print(Parvane::Judgement(invocation.mConfig, configuration.mProblems, "the gateway"));
    return configuration.FirstError() == nullptr ? ExitCode::Success : ExitCode::Failure;
}

} // namespace ParvaneGateway
