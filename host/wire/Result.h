#pragma once

#include <utility>
#include <variant>

namespace ParvaneHost {

/**
 * Either the value of an operation, or why there is none.
 *
 * Look before you read: Value() of a failure, and GetError() of a success, throw
 * std::bad_variant_access.
 */
template <typename T, typename E>
class [[nodiscard]] Result
{
public:
    // Both conversions are wanted: an operation returns its value or its error as they are.
    // NOLINTNEXTLINE(google-explicit-constructor)
    Result(T value) : mOutcome(std::in_place_index<0>, std::move(value)) {}
    // NOLINTNEXTLINE(google-explicit-constructor)
    Result(E error) : mOutcome(std::in_place_index<1>, std::move(error)) {}

    [[nodiscard]] bool Ok() const noexcept { return mOutcome.index() == 0; }
    explicit operator bool() const noexcept { return Ok(); }

    [[nodiscard]] const T &Value() const & { return std::get<0>(mOutcome); }
    [[nodiscard]] T &Value() & { return std::get<0>(mOutcome); }
    [[nodiscard]] T &&Value() && { return std::get<0>(std::move(mOutcome)); }

    [[nodiscard]] const E &GetError() const & { return std::get<1>(mOutcome); }
    [[nodiscard]] E &&GetError() && { return std::get<1>(std::move(mOutcome)); }

private:
    std::variant<T, E> mOutcome;
};

} // namespace ParvaneHost
