#pragma once

namespace Parvane {

/** Lets std::unique_ptr release an object by a function: std::unique_ptr<DIR, Released<closedir>>. */
template <auto kRelease>
struct Released
{
    template <typename Object>
    void operator()(Object *object) const noexcept
    {
        kRelease(object);
    }
};

} // namespace Parvane
