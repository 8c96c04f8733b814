#include "IioDevice.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <utility>

#include "Files.h"
#include "MessageText.h"
#include "Numbers.h"
#include "Released.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

constexpr std::string_view kPrefix = "iio:device";
constexpr std::string_view kInputEnd = "_input";
constexpr std::size_t kMaxNameBytes = 256;

/** Keeps the first error that is more than a missing file. */
void NoteObstacle(const std::string &path, int error, std::string &obstacle)
{
    if (obstacle.empty() && error != ENOENT && error != ENOTDIR) {
        obstacle = path + ": " + ErrorText(error);
    }
}

/** The numbers of the devices, ascending. */
std::vector<unsigned> DeviceNumbers(const std::string &directory, std::string &obstacle)
{
    std::vector<unsigned> numbers;
    const std::unique_ptr<DIR, Parvane::Released<closedir>> entries(::opendir(directory.c_str()));
    if (!entries) {
        NoteObstacle(directory, errno, obstacle);
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
std::string NameOf(const std::string &device, std::string &obstacle)
{
    const std::string path = device + "/name";
    std::string name;
    if (const int error = ReadWholeFile(path, kMaxNameBytes, name); error != 0) {
        NoteObstacle(path, error, obstacle);
        return {};
    }
    return name.substr(0, name.find('\n'));
}

/** The real path of the directory above a device's own, which bus/iio/devices has as a link. */
std::string PlaceOf(const std::string &device)
{
    const std::unique_ptr<char, Parvane::Released<std::free>> path(
        ::realpath(device.c_str(), nullptr));
    return path ? ParentOf(path.get()) : std::string();
}

/** The attribute that switches an input on and off. */
std::string SwitchOf(const std::string &device, const std::string &input)
{
    return device + '/' + input.substr(0, input.size() - kInputEnd.size()) + "_en";
}

} // namespace

IioDevice::IioDevice(const IioSettings &settings, Inputs inputs, IioSwitches &switches)
    : mDirectory(settings.mRoot + "/bus/iio/devices"),
      mWantedName(settings.mDevice),
      mInputs(std::move(inputs)),
      mSwitches(switches)
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
    SwitchOff();
    mPath.clear();
    const auto nameBefore = mName;
    const std::string placeBefore = mPlace;
    std::string obstacle;
    if (!Find(obstacle)) {
        TellAbsence("no device" +
                    (mWantedName.empty() ? "" : " named '" + Printable(mWantedName) + "'") +
                    " has " + mInputs.mLabel + (obstacle.empty() ? "" : " (" + obstacle + ")"));
        return Presence::Absent;
    }
    mToldAbsence.clear();
    LogInfo("iio: %s is read from %s (%s)", mInputs.mLabel.c_str(), mPath.c_str(),
            mName->empty() ? "no name" : Printable(*mName).c_str());
    if (mIsEnabled) {
        SwitchOn();
    }
    const bool isAnother = nameBefore && (*nameBefore != *mName || placeBefore != mPlace);
    return isAnother ? Presence::Replaced : Presence::Found;
}

void IioDevice::Lose(const std::string &file)
{
    TellAbsence(mPath + '/' + file + " has gone");
    SwitchOff();
    mPath.clear();
}

void IioDevice::SetEnabled(bool isEnabled)
{
    if (std::exchange(mIsEnabled, isEnabled) == isEnabled) {
        return;
    }
    if (!isEnabled) {
        SwitchOff();
    } else if (!mPath.empty()) {
        SwitchOn();
    }
}

bool IioDevice::IsOff(const std::string &input) const
{
    return IioSwitches::IsOff(SwitchOf(mPath, input));
}

bool IioDevice::IsStillThere() const
{
    struct stat status = {};
    return ::stat(mPath.c_str(), &status) == 0 && status.st_dev == mFileSystem &&
           status.st_ino == mInode;
}

bool IioDevice::Find(std::string &obstacle)
{
    for (const unsigned number : DeviceNumbers(mDirectory, obstacle)) {
        const std::string path = mDirectory + '/' + std::string(kPrefix) + std::to_string(number);
        struct stat status = {};
        if (::stat(path.c_str(), &status) != 0) {
            NoteObstacle(path, errno, obstacle);
            continue;
        }
        if (!HasRequired(path, obstacle)) {
            continue;
        }
        std::string name = NameOf(path, obstacle);
        if (!mWantedName.empty() && name != mWantedName) {
            continue;
        }
        mPath = path;
        mFileSystem = status.st_dev;
        mInode = status.st_ino;
        mName = std::move(name);
        mPlace = PlaceOf(path);
        return true;
    }
    return false;
}

bool IioDevice::HasRequired(const std::string &path, std::string &obstacle) const
{
    for (const std::string &input : mInputs.mRequired) {
        const std::string file = std::string(path).append("/").append(input);
        struct stat status = {};
        if (::stat(file.c_str(), &status) == 0) {
            return true;
        }
        NoteObstacle(file, errno, obstacle);
    }
    return false;
}

void IioDevice::SwitchOn()
{
    for (const auto *inputs : {&mInputs.mRequired, &mInputs.mOptional}) {
        for (const std::string &input : *inputs) {
            const std::string path = SwitchOf(mPath, input);
            if (mSwitches.Use(path)) {
                mSwitchedOn.push_back(path);
            }
        }
    }
}

void IioDevice::SwitchOff()
{
    const bool isThere = !mSwitchedOn.empty() && IsStillThere();
    for (const std::string &path : std::exchange(mSwitchedOn, {})) {
        if (isThere) {
            mSwitches.Leave(path);
        } else {
            mSwitches.Forget(path);
        }
    }
}

void IioDevice::TellAbsence(const std::string &line)
{
    if (std::exchange(mToldAbsence, line) != line) {
        LogWarning("iio: %s", line.c_str());
    }
}

} // namespace ParvanePlatform
