#include "Process.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds kPause(5);

constexpr const char *kEmulator = PARVANE_EMULATOR; // words separated by bars, or nothing

/** Puts the emulator before a command of this build, if the build is for another machine. */
void Emulate(std::vector<std::string> &command, Environment &environment)
{
    const std::string emulator = kEmulator;
    if (emulator.empty() || !command.front().starts_with(PARVANE_BUILD_FOLDER "/")) {
        return;
    }
    std::vector<std::string> words;
    std::istringstream bars(emulator);
    for (std::string word; std::getline(bars, word, '|');) {
        words.push_back(word);
    }
    // What is loaded first is for the program, and not for the emulator.
    if (const auto preload = environment.extract("LD_PRELOAD"); !preload.empty()) {
        words.insert(words.end(), {"-E", "LD_PRELOAD=" + preload.mapped()});
    }
    command.insert(command.begin(), words.begin(), words.end());
}

std::vector<char *> Pointers(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string &text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

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
{
    static std::atomic<int> count = 0;
    const std::string name = "process" + std::to_string(++count);
    mOutput = folder / (name + ".out");
    mError = folder / (name + ".err");

    std::vector<std::string> arguments = command;
    Environment exactly = environment;
    Emulate(arguments, exactly);
    std::vector<std::string> variables;
    for (const auto &[variable, value] : exactly) {
        variables.push_back(variable);
        variables.back().append("=").append(value);
    }
    const std::vector<char *> argv = Pointers(arguments);
    const std::vector<char *> envp = Pointers(variables);
    const std::string output = mOutput.string();
    const std::string error = mError.string();
    mPid = fork();
    if (mPid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (mPid > 0) {
        return;
    }
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDOUT_FILENO);
    dup2(open(error.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
    execve(argv.front(), argv.data(), envp.data());
    _exit(127);
}

Process::~Process()
{
    if (mPid > 0) {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
}

std::string Process::StandardOutput() const
{
    return ReadFile(mOutput);
}

std::string Process::StandardError() const
{
    return ReadFile(mError);
}

bool Process::HasLogged(const std::string &text) const
{
    return Eventually([&] { return StandardError().find(text) != std::string::npos; });
}

void Process::Signal(int number) const
{
    kill(mPid, number);
}

std::optional<int> Process::WaitForEnd(std::chrono::seconds limit)
{
    int status = 0;
    if (!Eventually([&] { return waitpid(mPid, &status, WNOHANG) == mPid; }, limit)) {
        return std::nullopt;
    }
    mPid = -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
