#pragma once

#include <cassert>
#include <string>
#include <utility>
#include <variant>

namespace kestrin {

// Why something a caller asked for could not be done: bad input from a file, a tool or a
// remote peer. Our own bugs are assertions, not Failures.
struct Failure {
  std::string message;
};

// A value or the Failure that prevented it. Expected absence (a missing file, a key of the
// wrong kind) is reported through this type or std::optional, never by throwing.
template <typename T> class [[nodiscard]] Expected {
public:
  Expected(T value) : state_(std::move(value)) {}
  Expected(Failure failure) : state_(std::move(failure)) {}

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

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
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

  const Failure& failure() const {
    assert(!ok());
    return std::get<1>(state_);
  }
  const std::string& message() const { return failure().message; }

  template <typename U> T valueOr(U&& fallback) const& {
    return ok() ? value() : static_cast<T>(std::forward<U>(fallback));
  }

private:
  std::variant<T, Failure> state_;
};

template <> class [[nodiscard]] Expected<void> {
public:
  Expected() = default;
  Expected(Failure failure) : failure_(std::move(failure)), ok_(false) {}

  bool ok() const { return ok_; }
  explicit operator bool() const { return ok_; }
  const Failure& failure() const {
    assert(!ok_);
    return failure_;
  }
  const std::string& message() const { return failure().message; }

private:
  Failure failure_;
  bool ok_ = true;
};

} // namespace kestrin
