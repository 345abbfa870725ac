// The symbolization library on arbitrary debug-info files: a file that reads
// is placed at its recorded addresses, its address map is walked and a fixed
// set of addresses is resolved, start, middle and last byte of the first
// ranges and a few addresses anywhere. Every string of the answers is read
// at both ends, so that a name taken from past the end of an image (or from
// freed memory) is a sanitizer report, not a quiet wrong answer. The answers
// must agree with the address map: resolve() answers exactly where rangeAt()
// finds a range, and from that range.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "file/DebugInfoFile.h"
#include "kelo/DebugInfoList.h"
#include "kelo/symbolize.hpp"
#include "memory_stream.h"

namespace {

using kelo_debuginfo::DebugInfoList;
using kelo_symbolize::Frame;
using kelo_symbolize::Location;
using kelo_symbolize::Range;
using kelo_symbolize::Symbolizer;

// An input's work is bounded: the map of a file with many sections is walked
// up to here, and the addresses resolved come from the first ranges only.
constexpr size_t kRangesWalked = 4096;
constexpr size_t kOverlapsWalked = 4096;
constexpr size_t kRangesResolved = 64;

void check(bool ok) {
  if (!ok) std::abort();
}

// Reads the string's length and its first and last bytes.
void touch(const std::string& s) {
  static volatile size_t sink;
  sink = sink + s.size();
  if (!s.empty()) sink = sink + static_cast<unsigned char>(s.front()) + static_cast<unsigned char>(s.back());
}

void walkRanges(const Symbolizer& symbolizer) {
  const std::vector<Range>& ranges = symbolizer.ranges();
  const size_t walked = std::min(ranges.size(), kRangesWalked);
  for (size_t i = 0; i < walked; ++i) {
    const Range& r = ranges[i];
    touch(r.section);
    check(r.start < r.end);
    if (i > 0) check(ranges[i - 1].start <= r.start);
    // At a range's start, rangeAt() takes this range or another that starts
    // there too: none that holds the address starts later.
    const Range* at = symbolizer.rangeAt(r.start);
    check(at != nullptr && at->start == r.start && r.start < at->end);
    const size_t overlaps = std::min(r.overlaps.size(), kOverlapsWalked);
    for (size_t k = 0; k < overlaps; ++k) {
      const size_t j = r.overlaps[k];
      check(j < ranges.size() && j != i);
      if (k > 0) check(r.overlaps[k - 1] < j);
      const Range& other = ranges[j];
      touch(other.section);
      check(other.start < r.end && r.start < other.end);
    }
  }
}

void resolveOne(Symbolizer& symbolizer, uint64_t address) {
  const Range* at = symbolizer.rangeAt(address);
  const absl::optional<Location> loc = symbolizer.resolve(address);
  check(loc.has_value() == (at != nullptr));
  if (!loc) return;
  check(loc->id == at->id && loc->section == at->section && loc->offset == address - at->start);
  touch(loc->section);
  touch(loc->variable);
  for (const Frame& f : loc->frames) {
    touch(f.function);
    touch(f.demangled);
    touch(f.file);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<unsigned char> bytes(data, data + size);
  absl::optional<DebugInfoList> list = kelo_fuzz::readList(bytes);
  if (!list) return 0;

  Symbolizer symbolizer(*list);
  walkRanges(symbolizer);

  // The addresses are taken first: the ranges belong to the symbolizer.
  std::vector<uint64_t> addresses = {0, 0x1000, 0x80001000, UINT64_MAX};
  const std::vector<Range>& ranges = symbolizer.ranges();
  for (size_t i = 0; i < std::min(ranges.size(), kRangesResolved); ++i) {
    const Range& r = ranges[i];
    addresses.push_back(r.start);
    addresses.push_back(r.start + (r.end - r.start) / 2);
    addresses.push_back(r.end - 1);
  }
  for (uint64_t address : addresses) resolveOne(symbolizer, address);
  return 0;
}
