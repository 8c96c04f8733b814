#pragma once

#include <memory>
#include <utility>

#include <glib.h>

namespace Parvane {

/** A strong reference that travels with a timer. */
template <typename Target>
using TimerTarget = std::unique_ptr<std::shared_ptr<Target>>;

/** Makes the reference: done first, so that a request for which memory is missing changes nothing. */
template <typename Target>
TimerTarget<Target> MakeTimerTarget(std::shared_ptr<Target> target)
{
    return std::make_unique<std::shared_ptr<Target>>(std::move(target));
}

/**
 * Calls `callback` once, `delayMs` milliseconds from now, with `target`.
 *
 * The reference keeps its object alive until the callback, which takes it with TakeTimerTarget, has
 * run. The timer cannot be cancelled.
 */
template <typename Target>
void StartOneShotTimer(guint delayMs, GSourceFunc callback, TimerTarget<Target> target)
{
    g_timeout_add(delayMs, callback, target.release());
}

/** The reference that came with a timer; released with the result. Null for null. */
template <typename Target>
std::shared_ptr<Target> TakeTimerTarget(gpointer data)
{
    const TimerTarget<Target> reference(static_cast<std::shared_ptr<Target> *>(data));
    return reference ? std::move(*reference) : nullptr;
}

} // namespace Parvane
