#pragma once

#include <exception>
#include <new>

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

} // namespace ParvanePlatform
