#include "address_map.h"

#include <algorithm>
#include <numeric>
#include <queue>
#include <set>
#include <tuple>
#include <utility>

#include "search.h"

namespace kelo_symbolize {
namespace internal {

void AddressMap::add(Range range, Placement placement) {
  ranges_.push_back(std::move(range));
  placements_.push_back(placement);
}

void AddressMap::finish() {
  std::vector<size_t> order(ranges_.size());
  std::iota(order.begin(), order.end(), size_t{0});
  auto key = [this](size_t i) {
    const Range& r = ranges_[i];
    return std::make_tuple(r.start, r.end, r.id.kind, r.id.number(), std::cref(r.section));
  };
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return key(a) < key(b); });
  std::vector<Range> ranges;
  std::vector<Placement> placements;
  ranges.reserve(order.size());
  placements.reserve(order.size());
  for (size_t i : order) {
    ranges.push_back(std::move(ranges_[i]));
    placements.push_back(placements_[i]);
  }
  ranges_ = std::move(ranges);
  placements_ = std::move(placements);

  // Overlaps are counted, not enumerated: the ranges sharing an address with
  // range i are those that start before it ends, less those that end before
  // (or where) it starts, less itself. Only the first few are listed: of the
  // earlier ranges, those still open at its start (kept in position order,
  // leaving when they end), then the later ones that start inside it.
  std::vector<uint64_t> starts(ranges_.size()), ends(ranges_.size());
  for (size_t i = 0; i < ranges_.size(); ++i) {
    starts[i] = ranges_[i].start;
    ends[i] = ranges_[i].end;
  }
  std::sort(ends.begin(), ends.end());
  auto endsLater = [this](size_t a, size_t b) { return ranges_[a].end > ranges_[b].end; };
  std::priority_queue<size_t, std::vector<size_t>, decltype(endsLater)> byEnd(endsLater);
  std::set<size_t> stillOpen;
  for (size_t i = 0; i < ranges_.size(); ++i) {
    Range& r = ranges_[i];
    const size_t startingBefore =
        static_cast<size_t>(std::lower_bound(starts.begin(), starts.end(), r.end) - starts.begin());
    const size_t endedBefore = static_cast<size_t>(std::upper_bound(ends.begin(), ends.end(), r.start) - ends.begin());
    r.overlapCount = startingBefore - endedBefore - 1;
    while (!byEnd.empty() && ranges_[byEnd.top()].end <= r.start) {
      stillOpen.erase(byEnd.top());
      byEnd.pop();
    }
    for (auto it = stillOpen.begin(); it != stillOpen.end() && r.overlaps.size() < kListedOverlaps; ++it)
      r.overlaps.push_back(*it);
    for (size_t j = i + 1; j < ranges_.size() && ranges_[j].start < r.end && r.overlaps.size() < kListedOverlaps; ++j) {
      r.overlaps.push_back(j);
    }
    stillOpen.insert(i);
    byEnd.push(i);
  }

  // Sweep the boundaries, keeping the ranges open at each one; the answer is
  // the open range that started last (then the first in order). Ranges that
  // have ended leave the queue when they come to its top.
  const std::vector<uint64_t> bounds = boundaries(ranges_);
  auto later = [this](size_t a, size_t b) {
    return ranges_[a].start != ranges_[b].start ? ranges_[a].start < ranges_[b].start : a > b;
  };
  std::priority_queue<size_t, std::vector<size_t>, decltype(later)> open(later);
  size_t next = 0;
  pieces_.clear();
  for (uint64_t at : bounds) {
    while (next < ranges_.size() && ranges_[next].start == at) open.push(next++);
    while (!open.empty() && ranges_[open.top()].end <= at) open.pop();
    const size_t answer = open.empty() ? kNone : open.top();
    if (pieces_.empty() || pieces_.back().range != answer) pieces_.push_back({at, answer});
  }
}

size_t AddressMap::find(uint64_t address) const noexcept {
  const size_t before = countNotAfter(pieces_, address, [](const Piece& p) { return p.start; });
  return before == 0 ? kNone : pieces_[before - 1].range;
}

}  // namespace internal
}  // namespace kelo_symbolize
