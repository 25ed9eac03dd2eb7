#pragma once

// The outcome of an operation that can fail: a value of T or an error of E.
// Each subsystem has a small error type of its own whose values print their
// own message through a free function `message(const E&)` found by
// argument-dependent lookup. `Result<void, E>` carries no value.
//
//   Result<Title, RDError> r = co_await client.info(id);
//   if (!r) log(message(r.error()));
//
// gcc 12 can't build std::expected in C++20 mode, so this is our own; the
// member names follow std::expected so that a later switch is mechanical.

#include <cassert>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

namespace vt {

// The error side, for returning a failure: `return Failure(MyError::x);`.
template <class E>
struct Failure {
  E error;
  explicit Failure(E e) : error(std::move(e)) {}
};

template <class T, class E>
class [[nodiscard]] Result {
 public:
  using value_type = T;
  using error_type = E;

  // Like std::expected: a default result holds a default value.
  Result() requires std::is_default_constructible_v<T> : state_(std::in_place_index<0>) {}
  template <class U = T, class = std::enable_if_t<std::is_constructible_v<T, U&&>>>
  Result(U&& value) : state_(std::in_place_index<0>, std::forward<U>(value)) {}
  template <class G>
  Result(Failure<G> f) : state_(std::in_place_index<1>, std::move(f.error)) {}

  bool has_value() const { return state_.index() == 0; }
  explicit operator bool() const { return has_value(); }

  T& value() & {
    assert(has_value());
    return std::get<0>(state_);
  }
  const T& value() const& {
    assert(has_value());
    return std::get<0>(state_);
  }
  T&& value() && {
    assert(has_value());
    return std::get<0>(std::move(state_));
  }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

  const E& error() const {
    assert(!has_value());
    return std::get<1>(state_);
  }

  template <class U>
  T value_or(U&& fallback) const& {
    return has_value() ? std::get<0>(state_) : static_cast<T>(std::forward<U>(fallback));
  }

  bool operator==(const Result&) const = default;

 private:
  std::variant<T, E> state_;
};

template <class E>
class [[nodiscard]] Result<void, E> {
 public:
  using value_type = void;
  using error_type = E;

  Result() = default;
  template <class G>
  Result(Failure<G> f) : error_(std::move(f.error)), failed_(true) {}

  bool has_value() const { return !failed_; }
  explicit operator bool() const { return has_value(); }
  void value() const { assert(has_value()); }
  const E& error() const {
    assert(failed_);
    return error_;
  }

  bool operator==(const Result&) const = default;

 private:
  E error_{};
  bool failed_ = false;
};

// The message of a result's error, or "" for a success.
template <class T, class E>
std::string errorMessage(const Result<T, E>& r) {
  if (r) return {};
  return message(r.error());
}

}  // namespace vt
