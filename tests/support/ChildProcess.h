#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace Parvane {

/** The one launcher of other programs: a child process, killed and waited for by its owner. */
class ChildProcess
{
public:
    using Variables = std::map<std::string, std::string>;

    static constexpr int kNothing = -1; // in a descriptor's place: /dev/null
    static constexpr int kClosed = -2;

    struct Start
    {
        /**
         * The program, looked up in $PATH if it has no slash, and its arguments. A program of this build
         * is started by the emulator, if the build is for another machine.
         */
        std::vector<std::string> mCommand;
        Variables mEnvironment; // all of it
        int mInput = kNothing;  // borrowed, as are the others
        int mOutput = kNothing;
        int mErrors = kNothing;
        /** Called in the child before the program takes its place; must not need memory. */
        std::function<void()> mPrepare = nullptr;
    };

    /** The environment of this process. */
    static Variables OwnEnvironment();

    /** @throws std::system_error. A program that cannot be started ends with status 127. */
    explicit ChildProcess(const Start &start);
    ~ChildProcess();

    ChildProcess(ChildProcess &&other) noexcept : mPid(std::exchange(other.mPid, -1)) {}
    ChildProcess &operator=(ChildProcess &&other) noexcept;
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    /** -1 once its end has been seen. */
    [[nodiscard]] pid_t Pid() const { return mPid; }

    void Signal(int number) const;

    /** Its exit status; minus the number of the signal that ended it; nothing if it goes on. */
    std::optional<int> WaitForEnd(std::chrono::milliseconds limit);

private:
    void Kill() noexcept;

    pid_t mPid = -1;
};

} // namespace Parvane
