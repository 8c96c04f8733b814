#include "Gateway.h"

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <stdexcept>

Gateway::Gateway(const std::string &program, const std::filesystem::path &watch)
    : mProgram(program), mFile(mFolder.Path() / "gateway.conf")
{
    const std::string folder = mFolder.Path().string();
    std::filesystem::create_directory(folder + "/state");
    std::filesystem::create_directory(folder + "/run");
    WriteFile(mFile, "[watch]\ndirectory=" + watch.string() +
                         "\n[web]\nport=0\n[bluetooth]\nenabled=no\n" +
                         "[directories]\nstate=" + folder + "/state\nruntime=" + folder + "/run\n");
    const auto token = nlohmann::json::parse(OutputOf({"token", "add", "phone", "--json"}));
    // Begins again while other tests have all that the machine has of inotify.
    const bool serves = Eventually([this] {
        if (!mProcess || mProcess->WaitForEnd(std::chrono::seconds(0))) {
            mProcess = std::make_unique<Process>(
                std::vector<std::string>{mProgram, "--config", mFile}, PassedOn(), mFolder.Path());
        }
        return mProcess->StandardError().find("serving") != std::string::npos;
    });
    if (!serves) {
        throw std::runtime_error("the gateway does not serve: " + mProcess->StandardError());
    }
    const auto web = nlohmann::json::parse(OutputOf({"status", "--json"})).at("roads").at("web");
    mTarget.mHost = "127.0.0.1";
    mTarget.mPort = web.at("port");
    mTarget.mAddress = "wss://127.0.0.1:" + std::to_string(mTarget.mPort);
    mTarget.mIsTls = true;
    mTarget.mToken = token.at("token");
    mTarget.mFingerprint = web.at("fingerprint");
}

const Gateway *Gateway::Of(const std::filesystem::path &watch)
{
    static std::filesystem::path folder;
    static std::unique_ptr<Gateway> gateway;
    const char *const program = std::getenv("PARVANE_TEST_GATEWAY");
    if (program != nullptr && (!gateway || folder != watch)) {
        gateway.reset();
        gateway = std::make_unique<Gateway>(program, watch);
        folder = watch;
    }
    return gateway.get();
}

std::string Gateway::OutputOf(const std::vector<std::string> &arguments) const
{
    std::vector<std::string> command = {mProgram, "--config", mFile};
    command.insert(command.end(), arguments.begin(), arguments.end());
    Process process(command, PassedOn(), mFolder.Path());
    if (process.WaitForEnd() != 0) {
        throw std::runtime_error("parvane-gateway " + arguments.front() + ": " +
                                 process.StandardError());
    }
    return process.StandardOutput();
}
