// Binary search for the lookups made once per address.
#ifndef KELO_SYMBOLIZE_SEARCH_H_
#define KELO_SYMBOLIZE_SEARCH_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kelo_symbolize {
namespace internal {

// How many of `items`, sorted by keyOf, have a key at most `key`: the
// position std::upper_bound gives, with the key read by keyOf. The search
// branches on each comparison: the processor's guess then loads the next
// probe while the current one is still on its way from memory, which wins
// over a branch-free search on tables that are not in cache.
template <typename T, typename KeyOf>
size_t countNotAfter(const std::vector<T>& items, uint64_t key, KeyOf keyOf) noexcept {
  size_t low = 0, n = items.size();
  while (n > 0) {
    const size_t half = n / 2;
    if (keyOf(items[low + half]) <= key) {
      low += half + 1;
      n -= half + 1;
    } else {
      n = half;
    }
  }
  return low;
}

inline size_t countNotAfter(const std::vector<uint64_t>& keys, uint64_t key) noexcept {
  return countNotAfter(keys, key, [](uint64_t k) { return k; });
}

}  // namespace internal
}  // namespace kelo_symbolize

#endif  // KELO_SYMBOLIZE_SEARCH_H_
