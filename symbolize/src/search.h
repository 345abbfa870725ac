// Binary search for the lookups made once per address.
#ifndef KELO_SYMBOLIZE_SEARCH_H_
#define KELO_SYMBOLIZE_SEARCH_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kelo_symbolize {
namespace internal {

// How many of `items`, sorted by keyOf, have a key at most `key`: the
// position std::upper_bound gives. Each step halves the range without a
// branch on the comparison, which random addresses would mispredict half
// of the time.
template <typename T, typename KeyOf>
size_t countNotAfter(const std::vector<T>& items, uint64_t key, KeyOf keyOf) noexcept {
  size_t n = items.size();
  if (n == 0) return 0;
  const T* base = items.data();
  while (n > 1) {
    const size_t half = n / 2;
    base += static_cast<size_t>(keyOf(base[half]) <= key) * half;
    n -= half;
  }
  return static_cast<size_t>(base - items.data()) + static_cast<size_t>(keyOf(*base) <= key);
}

inline size_t countNotAfter(const std::vector<uint64_t>& keys, uint64_t key) noexcept {
  return countNotAfter(keys, key, [](uint64_t k) { return k; });
}

}  // namespace internal
}  // namespace kelo_symbolize

#endif  // KELO_SYMBOLIZE_SEARCH_H_
