#pragma once

#include <cassert>
#include <type_traits>
#include <utility>
#include <variant>

namespace vantorix {

// Tag that carries an error into a Result: `return Failure{MonitorError::invalidSelection()};`
template <class E>
struct Failure {
    E error;
};
template <class E>
Failure(E) -> Failure<E>;

// A value or an error, until the standard library offers std::expected.
template <class T, class E>
class [[nodiscard]] Result {
public:
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}  // NOLINT(google-explicit-constructor)
    template <class F, class = std::enable_if_t<std::is_constructible_v<E, F>>>
    Result(Failure<F> failure) : state_(std::in_place_index<1>, E(std::move(failure.error))) {}  // NOLINT

    bool ok() const noexcept { return state_.index() == 0; }
    explicit operator bool() const noexcept { return ok(); }

    T& value() & {
        assert(ok());
        return std::get<0>(state_);
    }
    const T& value() const& {
        assert(ok());
        return std::get<0>(state_);
    }
    T&& value() && {
        assert(ok());
        return std::get<0>(std::move(state_));
    }

    const E& error() const {
        assert(!ok());
        return std::get<1>(state_);
    }

    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }

private:
    std::variant<T, E> state_;
};

// Success without a value.
struct Unit {
    friend bool operator==(Unit, Unit) { return true; }
};

}  // namespace vantorix
