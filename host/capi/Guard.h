#pragma once

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <optional>
#include <parvane/host.h>
#include <string>
#include <string_view>
#include <type_traits>

#include "Session.h"

namespace ParvaneHost {

/** What a C function does, whose result is at least 0; no exception leaves it. */
template <typename Function>
auto Guarded(Function function) noexcept -> decltype(function())
{
    try {
        return function();
    } catch (const std::bad_alloc &) {
        return PARVANE_ENOMEM;
    } catch (...) {
        return PARVANE_EFAILED;
    }
}

/** Copies a structure to a caller who may know less of it. */
template <typename Struct>
void CopyOut(const Struct &from, Struct *to, std::size_t size) noexcept
{
    static_assert(std::is_trivially_copyable_v<Struct>);
    std::memcpy(to, &from, std::min(size, sizeof from));
}

/** A text that the caller frees; null without memory. */
char *NewText(std::string_view text) noexcept;

/** The instant that was given; null: now. */
Moment MomentOf(const parvane_moment *now) noexcept;

/** A packet of the watch as it is told in C. */
// NOLINTNEXTLINE(bugprone-exception-escape): a reply is never without a value
parvane_packet PacketOf(const Reply &reply) noexcept;

/** What a session is made with, as the options say; null: all as usual. 0 or a PARVANE_E number. */
int ReadStart(const parvane_options *options, SessionOptions &session,
              std::optional<StepLedger> &ledger);

} // namespace ParvaneHost
