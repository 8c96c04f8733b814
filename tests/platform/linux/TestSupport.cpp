#include "TestSupport.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include <glib.h>
#include <gtest/gtest.h>

namespace ParvanePlatform {

namespace {

constexpr unsigned kNobody = 65534;
constexpr std::int64_t kDeadlineUs = 30'000'000;

} // namespace

TemporaryDirectory::TemporaryDirectory()
{
    std::string name = std::filesystem::temp_directory_path() / "parvane-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("mkdtemp " + name);
    }
    mPath = name;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

std::string ReadFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void WriteFile(const std::string &path, std::string_view content)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    EXPECT_TRUE(file.good()) << path;
}

bool FileExists(const std::string &path)
{
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

unsigned ModeOf(const std::string &path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

StderrCapture::StderrCapture()
{
    testing::internal::CaptureStderr();
}

StderrCapture::~StderrCapture()
{
    if (mIsActive) {
        testing::internal::GetCapturedStderr();
    }
}

std::string StderrCapture::Take()
{
    mIsActive = false;
    constexpr std::string_view kTime = "2026-01-31T12:34:56.789Z ";
    std::istringstream lines(testing::internal::GetCapturedStderr());
    std::string text;
    for (std::string line; std::getline(lines, line);) {
        const bool isLogLine = line.size() > kTime.size() && line[10] == 'T' && line[23] == 'Z';
        text += (isLogLine ? line.substr(kTime.size()) : line) + '\n';
    }
    return text;
}

ClosedDirectory::ClosedDirectory(std::string path)
    : mPath(std::move(path)), mMode(ModeOf(mPath)), mWasRoot(geteuid() == 0)
{
    EXPECT_EQ(chmod(mPath.c_str(), 0), 0);
    EXPECT_TRUE(!mWasRoot || seteuid(kNobody) == 0);
}

ClosedDirectory::~ClosedDirectory()
{
    EXPECT_TRUE(!mWasRoot || seteuid(0) == 0);
    EXPECT_EQ(chmod(mPath.c_str(), mMode), 0);
}

bool RunUntil(const std::function<bool()> &done)
{
    bool isLate = false;
    const Parvane::LoopSource deadline =
        Parvane::LoopSource::At(g_get_monotonic_time() + kDeadlineUs, [&isLate] { isLate = true; });
    while (!done() && !isLate) {
        g_main_context_iteration(nullptr, TRUE);
    }
    return done();
}

void RunWhileBusy()
{
    // One turn more than reports work: a source that only prepares has its turn, too.
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
}

int NextWakeMs()
{
    GMainContext *context = g_main_context_default();
    std::array<GPollFD, 64> polled = {};
    int priority = 0;
    int timeoutMs = 0;
    EXPECT_TRUE(g_main_context_acquire(context));
    g_main_context_prepare(context, &priority);
    const int count = g_main_context_query(context, priority, &timeoutMs, polled.data(),
                                           static_cast<int>(polled.size()));
    g_main_context_check(context, priority, polled.data(), count);
    g_main_context_release(context);
    return timeoutMs;
}

} // namespace ParvanePlatform
