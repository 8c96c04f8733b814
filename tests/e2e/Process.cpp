#include "Process.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "UniqueFd.h"

namespace {

constexpr std::chrono::milliseconds kPause(5);

std::string NextName()
{
    static std::atomic<int> count = 0;
    return "process" + std::to_string(++count);
}

Parvane::UniqueFd OpenToAppend(const std::string &path)
{
    return Parvane::UniqueFd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
}

} // namespace

Environment PassedOn()
{
    Environment environment;
    for (const char *name :
         {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "GCOV_PREFIX", "GCOV_PREFIX_STRIP"}) {
        if (const char *const value = std::getenv(name)) {
            environment[name] = value;
        }
    }
    return environment;
}

void PauseBriefly()
{
    std::this_thread::sleep_for(kPause);
}

TemporaryFolder::TemporaryFolder()
{
    std::string name = (std::filesystem::temp_directory_path() / "parvane-e2e.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    mPath = name;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

std::string ReadFile(const std::filesystem::path &path)
{
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void WriteFile(const std::filesystem::path &path, const std::string &text)
{
    std::ofstream file(path, std::ios::binary);
    file << text;
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

Process::Process(const std::vector<std::string> &command, const Environment &environment,
                 const std::filesystem::path &folder)
    : mFiles((folder / NextName()).string()),
      mChild({.mCommand = command,
              .mEnvironment = environment,
              .mOutput = OpenToAppend(mFiles + ".out").Get(),
              .mErrors = OpenToAppend(mFiles + ".err").Get()})
{}

std::string Process::StandardOutput() const
{
    return ReadFile(mFiles + ".out");
}

std::string Process::StandardError() const
{
    return ReadFile(mFiles + ".err");
}

bool Process::HasLogged(const std::string &text) const
{
    return Eventually([&] { return StandardError().find(text) != std::string::npos; });
}
