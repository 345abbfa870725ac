// The value-or-error result of every codec operation.
#ifndef ORVEL_RESULT_H_
#define ORVEL_RESULT_H_

#include <type_traits>
#include <utility>

#include "absl/types/variant.h"

namespace orvel_lib {

// Holds exactly one of a value (T) or an error (E). Ask isOk() before taking
// either side: value() on an error, or error() on a value, throws
// absl::bad_variant_access. Operations without a value use absl::monostate.
template <typename T, typename E>
class Result {
  static_assert(!std::is_same<T, E>::value, "a Result needs distinct value and error types");

 public:
  using ValueType = T;
  using ErrorType = E;

  Result(T value) : v_(absl::in_place_index<0>, std::move(value)) {}  // NOLINT: implicit by design
  Result(E error) : v_(absl::in_place_index<1>, std::move(error)) {}  // NOLINT: implicit by design

  bool isOk() const noexcept { return v_.index() == 0; }
  bool isErr() const noexcept { return v_.index() == 1; }

  T& value() & { return absl::get<0>(v_); }
  const T& value() const& { return absl::get<0>(v_); }
  T&& value() && { return absl::get<0>(std::move(v_)); }

  E& error() & { return absl::get<1>(v_); }
  const E& error() const& { return absl::get<1>(v_); }

 private:
  absl::variant<T, E> v_;
};

}  // namespace orvel_lib

#endif  // ORVEL_RESULT_H_
