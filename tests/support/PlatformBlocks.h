#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "Allocation.h"
#include "ScriptedPlatform.h"

// The two opaque records of the context manager: one malloc'ed block each, entries after the head.

struct context_entry
{
    char key[64];
    bool isDouble;
    int integer;
    double real;
};

struct context_data
{
    bool hasTimestamp;
    int64_t milliseconds;
    std::size_t count;
    context_entry entries[1];
};

struct context_option
{
    std::size_t count;
    context_entry entries[1];
};

namespace Parvane {

struct MallocFree
{
    void operator()(void *block) const noexcept { std::free(block); }
};

template <typename T>
using MallocPtr = std::unique_ptr<T, MallocFree>;

/** A malloc'ed copy of `size` bytes, without a byte more. */
inline MallocPtr<uint8_t> MallocCopy(const void *source, std::size_t size)
{
    const PlatformScope scope;
    MallocPtr<uint8_t> copy(static_cast<uint8_t *>(std::malloc(size)));
    if (size != 0) {
        std::memcpy(copy.get(), source, size);
    }
    return copy;
}

/** A reading; whoever receives it releases it with free(). */
context_data *NewContextData(const ContextValues &values, std::optional<int64_t> milliseconds);

/** What the C functions do to the scripted platform. */
struct PlatformCalls
{
    static int Answer(const char *name, const std::string &call)
    {
        return ScriptedPlatform::Active().Answer(name, call);
    }

    static void AddKeyWatch(const char *key, vconf_changed_cb callback, void *userData);
    static int SetChangedCallback(ScriptedPlatform &platform, const std::string &call,
                                  ContextRequest request, int *requestId);
    static int UnsetChangedCallback(ScriptedPlatform &platform, int item);
    static int GetContext(ScriptedPlatform &platform, const std::string &call,
                          ContextRequest request, int *requestId);
    static int RegisterNotifications(ScriptedPlatform &platform, tal_notifications notifications);
    static int DeregisterNotifications(ScriptedPlatform &platform);
    static int RegisterService(ScriptedPlatform &platform, const tal_service_descriptor *service);
    static int DeregisterService(ScriptedPlatform &platform, int agentId);
    static int Send(ScriptedPlatform &platform, SentMessage message, const void *data);
    static void AddLogLine(ScriptedPlatform &platform, LogLine line);
    static int LogResult(ScriptedPlatform &p, int length) { return p.mLogCode.value_or(length); }
    static std::map<std::string, int> &Keys(ScriptedPlatform &p) { return p.mKeys; }
    static std::map<std::string, bool> &Booleans(ScriptedPlatform &p) { return p.mBooleans; }
    static std::map<std::string, int> &Integers(ScriptedPlatform &p) { return p.mIntegers; }
    static std::map<std::string, std::string> &Strings(ScriptedPlatform &p) { return p.mStrings; }
    static bool IsNullString(ScriptedPlatform &p, const char *key)
    {
        return p.mNullStrings.count(key) != 0;
    }
    static const std::string &BluetoothAddress(ScriptedPlatform &p) { return p.mBluetoothAddress; }
    static int RunMainLoop(ScriptedPlatform &platform, const service_app_callbacks &callbacks,
                           void *userData);
};

} // namespace Parvane
