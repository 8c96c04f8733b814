#include "BluetoothAdapter.h"

#include <cerrno>
#include <string_view>
#include <utility>

#include "BluetoothAddress.h"
#include "Files.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

constexpr std::size_t kMaxFileBytes = 64;

} // namespace

BluetoothAdapter::BluetoothAdapter(std::string configuredAddress, const std::string &stateDirectory,
                                   std::unique_ptr<AddressSource> source)
    : mAddress(std::move(configuredAddress)),
      mPath(stateDirectory + "/bluetooth-address"),
      mSource(std::move(source))
{}

int BluetoothAdapter::Deinitialize()
{
    if (mUsers == 0) {
        return kNotInitialized;
    }
    --mUsers;
    return 0;
}

int BluetoothAdapter::GetAddress(std::string &address)
{
    if (mUsers == 0) {
        return kNotInitialized;
    }
    if (mSource) {
        return mSource->GetAddress(address);
    }
    if (mAddress.empty()) {
        if (const int result = LoadOrMake(); result != 0) {
            return result;
        }
    }
    address = mAddress;
    return 0;
}

int BluetoothAdapter::LoadOrMake()
{
    std::string content;
    const int readError = ReadWholeFile(mPath, kMaxFileBytes, content);
    if (readError == 0 || readError == EFBIG) {
        std::string_view text = content;
        if (!text.empty() && text.back() == '\n') {
            text.remove_suffix(1);
        }
        if (auto kept = NormaliseBluetoothAddress(text); kept) {
            mAddress = std::move(*kept);
            return 0;
        }
        LogError("%s holds no Bluetooth address: a new one is made", mPath.c_str());
    } else if (readError != ENOENT) {
        LogError("cannot read %s: %s", mPath.c_str(), ErrorText(readError).c_str());
        return kOperationFailed;
    }

    mAddress = MakeRandomBluetoothAddress();
    const int writeError = WriteFileAtomically(mPath, mAddress + '\n', Durability::Disk);
    if (writeError != 0) {
        // The phone had better have a device for one run than an unknown one.
        LogError("cannot keep the Bluetooth address in %s: %s; it is %s for this run",
                 mPath.c_str(), ErrorText(writeError).c_str(), mAddress.c_str());
    }
    return 0;
}

} // namespace ParvanePlatform
