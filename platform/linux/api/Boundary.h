#pragma once

#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "ErrorCode.h"
#include "Runtime.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

/**
 * Runs the work of one C function on the runtime; nothing leaves it but a code.
 *
 * @param function  the C function's name, for the log
 * @param work      takes the Runtime, returns the function's code
 * @return what `work` returned; kInvalidContext without a runtime, kOutOfMemory without memory,
 *         `failure` when anything else was thrown, which is logged
 */
template <typename Work>
int WithRuntime(const char *function, Work &&work, int failure = ErrorCode::kInputOutput) noexcept
{
    Runtime *runtime = Runtime::Current();
    if (runtime == nullptr) {
        return ErrorCode::kInvalidContext;
    }
    try {
        return work(*runtime);
    } catch (const std::bad_alloc &) {
        return ErrorCode::kOutOfMemory;
    } catch (const std::exception &thrown) {
        LogError("%s: %s", function, thrown.what());
    } catch (...) {
        LogError("%s: unknown exception", function);
    }
    return failure;
}

/** The same for a function that needs pointers; kInvalidParameter when one of them is null. */
template <typename Work>
int WithRuntime(const char *function, bool areGiven, Work &&work,
                int failure = ErrorCode::kInputOutput) noexcept
{
    const auto checked = [&](Runtime &runtime) {
        return areGiven ? work(runtime) : ErrorCode::kInvalidParameter;
    };
    return WithRuntime(function, checked, failure);
}

/** Gives the caller of a C function a text, to be released with free(). @return 0 or kOutOfMemory */
inline int GiveText(const std::string &text, char **copy)
{
    char *given = ::strdup(text.c_str());
    if (given == nullptr) {
        return ErrorCode::kOutOfMemory;
    }
    *copy = given;
    return 0;
}

} // namespace ParvanePlatform
