// A small statistics library with a bug: the mean of an empty sample
// divides by zero.
#pragma once

#include <vector>

namespace stats {

int checked_div(int total, int count);

template <typename T>
class Sample {
 public:
  void add(T value) { values_.push_back(value); }
  // Inlined into its callers.
  int size() const { return static_cast<int>(values_.size()); }
  T sum() const {
    T total{};
    for (T v : values_) total += v;
    return total;
  }
  T mean() const { return checked_div(sum(), size()); }

 private:
  std::vector<T> values_;
};

}  // namespace stats
