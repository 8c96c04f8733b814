#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "LogPriority.h"
#include "RuntimeDirectory.h"

namespace ParvanePlatform {

using Parvane::Environment;

/** Where the readings of an item come from. */
enum class SourceKind { None, Replay, Iio, Ble, Manual };

/** The name of a kind of source, as the configuration has it: "none", "replay" ... */
const char *NameOf(SourceKind kind);

/** Section [sensors]: the source of each item. */
struct SensorSettings
{
    SourceKind mHeartRate = SourceKind::None;
    SourceKind mPedometer = SourceKind::None;
    SourceKind mActivity = SourceKind::None;
    SourceKind mGesture = SourceKind::None;

    bool operator==(const SensorSettings &) const = default;
};

/** Section [replay]: the recordings that are played. */
struct ReplaySettings
{
    /** In the order in which they are played; empty when there are none. */
    std::vector<std::string> mFiles;
    /** What names them, as messages begin: "FILE: line 3: [replay] files: "; empty for a variable. */
    std::string mNamedBy;
    /** How many times faster than recorded they are played. */
    double mSpeed = 1.0;
    /** Whether the first starts over at the end of the last. */
    bool mLoop = true;

    bool operator==(const ReplaySettings &) const = default;
};

/** Section [iio]: the kernel's industrial-I/O devices. */
struct IioSettings
{
    /** Where sysfs is mounted. */
    std::string mRoot = "/sys";
    /** The device's name, as its attribute "name" has it; empty: the first one that has the channel. */
    std::string mDevice;
    /** How often a subscribed item is read. */
    int mPeriodMs = 1000;

    bool operator==(const IioSettings &) const = default;
};

/** Section [ble]: a Bluetooth heart-rate strap. */
struct BleSettings
{
    /** The adapter through which it is reached, such as "hci0"; empty: any. */
    std::string mAdapter;
    /** The strap's address, upper case; empty: the first strap that is there. */
    std::string mDevice;

    bool operator==(const BleSettings &) const = default;
};

/** Section [power]: what a power lock holds in the system. */
struct PowerSettings
{
    enum class Lock { None, Auto, Logind, WakeLock };
    Lock mLock = Lock::None;
    /** Where wake_lock and wake_unlock lie. */
    std::string mRoot = "/sys/power";

    bool operator==(const PowerSettings &) const = default;
};

/** Section [memory]: who tells that memory is low. */
struct MemorySettings
{
    enum class Monitor { None, Auto, Glib, Pressure };
    Monitor mMonitor = Monitor::None;
    std::string mPressureFile = "/proc/pressure/memory";
    /** Memory is low when some task has waited for it this long within the window. */
    int mStallMs = 200;
    int mWindowMs = 2000;

    bool operator==(const MemorySettings &) const = default;
};

/** Section [battery]: who tells that the battery is low. */
struct BatterySettings
{
    enum class Monitor { None, Auto, UPower, Sysfs };
    Monitor mMonitor = Monitor::None;
    std::string mRoot = "/sys/class/power_supply";
    /** Low is below this, while discharging. For sysfs; UPower has thresholds of its own. */
    int mLowPercent = 5;
    /** How often the files are read. */
    int mPeriodMs = 60000;

    bool operator==(const BatterySettings &) const = default;
};

/** Section [bluetooth]: the adapter whose address the service reports. */
struct BluetoothSettings
{
    enum class Adapter { None, Bluez };
    Adapter mAdapter = Adapter::None;
    /** BlueZ's name of it, such as "hci0"; empty: the first. */
    std::string mName;
    /** Without an adapter: the address, upper case; empty when it is to be generated. */
    std::string mAddress;

    bool operator==(const BluetoothSettings &) const = default;
};

/** A key of the configuration: its section and its name. */
using ConfigName = std::pair<std::string, std::string>;

/** What the configuration asks of the runtime. */
struct Settings
{
    /** The configuration file that counts, and whether it is there. */
    std::string mFile;
    bool mHasFile = false;
    /** Where each key that has not its default is from: "line 3" of the file, or a variable. */
    std::map<ConfigName, std::string> mOrigins;
    /** Absolute; kept over restarts. */
    std::string mStateDirectory;
    /** Absolute; for one run. */
    std::string mRuntimeDirectory;
    SensorSettings mSensors;
    ReplaySettings mReplay;
    IioSettings mIio;
    BleSettings mBle;
    PowerSettings mPower;
    MemorySettings mMemory;
    BatterySettings mBattery;
    BluetoothSettings mBluetooth;
    /** A user who may be the host besides the service's own and root, by name or number; empty for none. */
    std::string mLinkAllow;
    /** Whether there is a control socket. */
    bool mControl = true;
    /** A user who is served there, as mLinkAllow. */
    std::string mControlAllow;
    /** Section [log]. */
    LogFilter mLog;

    bool operator==(const Settings &) const = default;
};

constexpr double kMinTraceSpeed = 0.001;
constexpr double kMaxTraceSpeed = 100000.0;

constexpr char kSystemConfigFile[] = "/etc/parvane/platform.conf";

/**
 * Reads the settings: from the file $PARVANE_PLATFORM_CONF, else from `systemFile` when there is
 * one, else the defaults; and over them from the environment, where an empty variable counts as
 * unset. What is odd about the file is logged as warnings.
 *
 * State: Parvane::ManagedDirectory() of STATE_DIRECTORY, $XDG_STATE_HOME/parvane unless that is
 * relative, the file's, $HOME/.local/state/parvane. Run-time files: Parvane::RuntimeDirectory().
 * PARVANE_TRACE, PARVANE_SPEED (kMinTraceSpeed to kMaxTraceSpeed), PARVANE_LOOP (0 or 1) and
 * PARVANE_BT_ADDRESS as their fields say.
 *
 * @throws StartupError that names the file, line and key, or the variable, what it holds and what is
 *         allowed; or the file that cannot be read
 */
Settings ReadSettings(const Environment &environment,
                      const std::string &systemFile = kSystemConfigFile);

} // namespace ParvanePlatform
