#include "IioDevice.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "base/Files.h"
#include "base/Numbers.h"
#include "base/RuntimeLog.h"
#include "base/UniqueFd.h"

namespace ParvanePlatform {

namespace {

constexpr std::string_view kPrefix = "iio:device";
constexpr std::string_view kInputEnd = "_input";
constexpr std::size_t kMaxNameBytes = 256;

struct DirectoryClose
{
    void operator()(DIR *directory) const noexcept { ::closedir(directory); }
};

/** The numbers of the devices, ascending. */
std::vector<unsigned> DeviceNumbers(const std::string &directory)
{
    std::vector<unsigned> numbers;
    const std::unique_ptr<DIR, DirectoryClose> entries(::opendir(directory.c_str()));
    if (!entries) {
        return numbers;
    }
    while (const dirent *entry = ::readdir(entries.get())) {
        std::string_view name = entry->d_name;
        if (!name.starts_with(kPrefix)) {
            continue;
        }
        name.remove_prefix(kPrefix.size());
        if (const auto number = ParseInteger<unsigned>(name)) {
            numbers.push_back(*number);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

/** What the attribute "name" says; empty when there is none. */
std::string NameOf(const std::string &device)
{
    std::string name;
    if (ReadWholeFile(device + "/name", kMaxNameBytes, name) != 0) {
        return {};
    }
    return name.substr(0, name.find('\n'));
}

void WriteAttribute(const std::string &path, char value)
{
    const UniqueFd file(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    if (!file || ::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return;
    }
    // A driver that refuses leaves the readings to tell.
    [[maybe_unused]] const ssize_t written = ::write(file.Get(), &value, 1);
}

} // namespace

IioDevice::IioDevice(const IioSettings &settings, Inputs inputs)
    : mDirectory(settings.mRoot + "/bus/iio/devices"),
      mWantedName(settings.mDevice),
      mInputs(std::move(inputs))
{}

IioDevice::~IioDevice()
{
    SetEnabled(false);
}

IioDevice::Presence IioDevice::Look()
{
    if (!mPath.empty() && IsStillThere()) {
        return Presence::Same;
    }
    mPath.clear();
    const auto before = mName;
    if (!Find()) {
        Lose();
        return Presence::Absent;
    }
    mHasToldAbsence = false;
    LogInfo("iio: %s is read from %s (%s)", mInputs.mLabel.c_str(), mPath.c_str(),
            mName->empty() ? "no name" : mName->c_str());
    if (mIsEnabled) {
        Switch('1');
    }
    return before && *before != *mName ? Presence::Replaced : Presence::Found;
}

void IioDevice::Lose()
{
    mPath.clear();
    if (std::exchange(mHasToldAbsence, true)) {
        return;
    }
    const std::string which = mWantedName.empty() ? "" : " named '" + mWantedName + "'";
    LogWarning("iio: no device%s has %s", which.c_str(), mInputs.mLabel.c_str());
}

void IioDevice::SetEnabled(bool isEnabled)
{
    if (std::exchange(mIsEnabled, isEnabled) != isEnabled && !mPath.empty()) {
        Switch(isEnabled ? '1' : '0');
    }
}

bool IioDevice::IsStillThere() const
{
    struct stat status = {};
    return ::stat(mPath.c_str(), &status) == 0 && status.st_dev == mFileSystem &&
           status.st_ino == mInode;
}

bool IioDevice::Find()
{
    for (const unsigned number : DeviceNumbers(mDirectory)) {
        const std::string path = mDirectory + '/' + std::string(kPrefix) + std::to_string(number);
        struct stat status = {};
        if (::stat(path.c_str(), &status) != 0 || !HasRequired(path)) {
            continue;
        }
        std::string name = NameOf(path);
        if (!mWantedName.empty() && name != mWantedName) {
            continue;
        }
        mPath = path;
        mFileSystem = status.st_dev;
        mInode = status.st_ino;
        mName = std::move(name);
        return true;
    }
    return false;
}

bool IioDevice::HasRequired(const std::string &path) const
{
    return std::any_of(mInputs.mRequired.begin(), mInputs.mRequired.end(),
                       [&path](const std::string &input) {
                           return ::access((path + '/' + input).c_str(), F_OK) == 0;
                       });
}

void IioDevice::Switch(char state) const
{
    for (const auto *inputs : {&mInputs.mRequired, &mInputs.mOptional}) {
        for (const std::string &input : *inputs) {
            const std::string channel = input.substr(0, input.size() - kInputEnd.size());
            WriteAttribute(mPath + '/' + channel + "_en", state);
        }
    }
}

} // namespace ParvanePlatform
