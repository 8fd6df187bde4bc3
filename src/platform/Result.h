#pragma once
// How failures the library expects at run time (input of the wrong kind, a refused file, an
// unreadable store) travel inside it: as values the caller has to look at. Exceptions are
// kept for programming errors.

#include <string>
#include <type_traits>
#include <utility>
#include <variant>

namespace qvl::detail {

/// Why an operation gave no value: a sentence naming what failed and why.
struct Failure {
  std::string reason;
};

/// The outcome of an operation that gives nothing back: `error` is empty on success.
struct [[nodiscard]] Status {
  std::string error;
  bool ok() const { return error.empty(); }
  explicit operator bool() const { return ok(); }
};

/// A value, or the Failure that stands in for it.
template <class T>
class [[nodiscard]] Result {
 public:
  template <class U>
  requires(!std::is_same_v<std::decay_t<U>, Failure> && !std::is_same_v<std::decay_t<U>, Result> &&
           std::is_constructible_v<T, U&&>) Result(U&& value)
      : state_(std::in_place_index<0>, std::forward<U>(value)) {}
  Result(Failure failure) : state_(std::in_place_index<1>, std::move(failure)) {}

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

  /// The value; only when ok().
  ///@{
  T& operator*() & { return std::get<0>(state_); }
  const T& operator*() const& { return std::get<0>(state_); }
  T&& operator*() && { return std::get<0>(std::move(state_)); }
  T* operator->() { return &std::get<0>(state_); }
  const T* operator->() const { return &std::get<0>(state_); }
  ///@}

  /// Why there is no value; only when !ok().
  ///@{
  const std::string& error() const { return std::get<1>(state_).reason; }
  Failure failure() const { return std::get<1>(state_); }
  ///@}

 private:
  std::variant<T, Failure> state_;
};

}  // namespace qvl::detail
