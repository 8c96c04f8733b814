#include "Log.h"

#include <string>
#include <unistd.h>

#include "Output.h"

namespace ParvaneGateway {

namespace {

void Write(const char *prefix, std::string_view text) noexcept
{
    try {
        Parvane::WriteAll(STDERR_FILENO, prefix + std::string(text) + '\n');
    } catch (const std::bad_alloc &) {
        Parvane::WriteAll(STDERR_FILENO, "parvane-gateway: no memory for a log line\n");
    }
}

} // namespace

void LogInfo(std::string_view text) noexcept
{
    Write("parvane-gateway: ", text);
}

void LogWarning(std::string_view text) noexcept
{
    Write("parvane-gateway: warning: ", text);
}

void LogError(std::string_view text) noexcept
{
    Write("parvane-gateway: error: ", text);
}

} // namespace ParvaneGateway
