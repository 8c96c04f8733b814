#include "RunHandler.h"

#include <array>
#include <cstdio>
#include <exception>

#include <glib.h>

namespace Parvane {

namespace {

void LogByGlib(const char *line) noexcept
{
    g_critical("%s", line);
}

void (*gLog)(const char *line) noexcept = LogByGlib;

void Tell(const char *where, const char *failure) noexcept
{
    std::array<char, 512> line{}; // there may be no memory
    std::snprintf(line.data(), line.size(), "%s: %s", where, failure);
    gLog(line.data());
}

} // namespace

void RunHandler(const char *where, const std::function<void()> &handler) noexcept
{
    try {
        handler();
    } catch (const std::exception &failure) {
        Tell(where, failure.what());
    } catch (...) {
        Tell(where, "unknown exception");
    }
}

void SetHandlerLog(void (*log)(const char *line) noexcept)
{
    gLog = log;
}

} // namespace Parvane
