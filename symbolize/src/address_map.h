// The sorted index from addresses to the placed sections of a list.
#ifndef KELO_SYMBOLIZE_ADDRESS_MAP_H_
#define KELO_SYMBOLIZE_ADDRESS_MAP_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kelo/symbolize.hpp"

namespace kelo_symbolize {
namespace internal {

// Where a range comes from: an entry (by its position in the caller's
// table) and a section index of its image.
struct Placement {
  size_t entry = 0;
  size_t section = 0;
};

class AddressMap {
 public:
  static constexpr size_t kNone = static_cast<size_t>(-1);

  // Adds one range of positive size.
  void add(Range range, Placement placement);

  // Sorts the ranges, finds the overlaps and builds the lookup index. Call
  // once, after the last add().
  void finish();

  const std::vector<Range>& ranges() const noexcept { return ranges_; }
  const Placement& placement(size_t range) const noexcept { return placements_[range]; }

  // The position of the range that holds `address` (the one starting last,
  // then the first in order), or kNone.
  size_t find(uint64_t address) const noexcept;

 private:
  std::vector<Range> ranges_;
  std::vector<Placement> placements_;
  // Disjoint pieces of the address space in ascending order, each up to the
  // next piece's start, with the range that answers for it (or kNone).
  struct Piece {
    uint64_t start;
    size_t range;
  };
  std::vector<Piece> pieces_;
};

// The distinct starts and ends of `ranges` (anything with `start` and `end`),
// sorted: the points where a sweep over them changes which ranges are open.
template <typename Ranges>
std::vector<uint64_t> boundaries(const Ranges& ranges) {
  std::vector<uint64_t> bounds;
  bounds.reserve(2 * ranges.size());
  for (const auto& r : ranges) {
    bounds.push_back(r.start);
    bounds.push_back(r.end);
  }
  std::sort(bounds.begin(), bounds.end());
  bounds.erase(std::unique(bounds.begin(), bounds.end()), bounds.end());
  return bounds;
}

}  // namespace internal
}  // namespace kelo_symbolize

#endif  // KELO_SYMBOLIZE_ADDRESS_MAP_H_
