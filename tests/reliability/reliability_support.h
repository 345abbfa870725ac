// Helpers shared by the reliability tests: images from the image library in
// use (the test double, or the real library with the example objects), a
// comparable snapshot of a list's whole content, and temporary paths.
#ifndef KELO_TESTS_RELIABILITY_SUPPORT_H_
#define KELO_TESTS_RELIABILITY_SUPPORT_H_

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "kelo/DebugInfoList.h"
#include "support/files.h"

#if !defined(KELO_RELIABILITY_REAL)
#include "double/elf_double.h"
#endif

namespace reliability {

inline uint64_t keyOf(const kelo_elf::DebugInfoID& id) {
  return (uint64_t{id.kind} << 32) | (uint64_t{id.hi} << 16) | id.lo;
}

inline std::vector<unsigned char> bytesOf(const kelo_elf::ELF& image) {
  return std::vector<unsigned char>(image.bytes().begin(), image.bytes().end());
}

// One entry: identifier, the identifier its image carries (-1: none), the
// image's bytes, and the section table in name order.
using Entry = std::tuple<uint64_t, int64_t, std::vector<unsigned char>, std::vector<std::pair<std::string, unsigned>>>;
using Snapshot = std::vector<Entry>;

inline Snapshot snapshot(kelo_debuginfo::DebugInfoList& list) {
  Snapshot out;
  for (auto& e : list.entries) {
    std::vector<std::pair<std::string, unsigned>> addrs(e.second.sectionAddrs.begin(), e.second.sectionAddrs.end());
    std::sort(addrs.begin(), addrs.end());
    const int64_t stamp = e.second.elf.debugInfoID ? static_cast<int64_t>(keyOf(*e.second.elf.debugInfoID)) : -1;
    out.emplace_back(keyOf(e.first), stamp, bytesOf(e.second.elf), std::move(addrs));
  }
  std::sort(out.begin(), out.end());
  return out;
}

// Reading a file does not restore the identifiers images carry.
inline Snapshot withoutStamps(Snapshot s) {
  for (Entry& e : s) std::get<1>(e) = -1;
  return s;
}

inline std::string tempPath(const std::string& tag) {
  static const kelo_test::TempDir dir;
  return dir.file(tag);
}

#if defined(KELO_RELIABILITY_REAL)

// The example objects, one per index.
inline kelo_elf::ELF makeImage(int i) {
  static const char* const names[] = {"main.o", "util.o", "extra.o"};
  absl::optional<kelo_elf::ELF> image = kelo_elf::ELF::load(kelo_test::example(names[i % 3]));
  if (!image) throw std::runtime_error("an example object does not load");
  return std::move(*image);
}

inline long liveImages() { return 0; }  // the real library keeps no count

// A section name that every example object has and that is too long to be
// kept inside a std::string without an allocation.
inline std::string longSectionName() {
  kelo_elf::ELF images[3] = {makeImage(0), makeImage(1), makeImage(2)};
  for (const std::string& name : images[0].sectionNames()) {
    if (name.size() > 15 && images[1].hasSection(name) && images[2].hasSection(name)) return name;
  }
  return ".constant";
}

#else

inline kelo_elf::ELF makeImage(int i) {
  return elf_double::image({".text", ".data", ".a_rather_long_section_name", "#image" + std::to_string(i)});
}

inline long liveImages() { return elf_double::control().liveImplementations; }

inline std::string longSectionName() { return ".a_rather_long_section_name"; }

#endif

}  // namespace reliability

#endif  // KELO_TESTS_RELIABILITY_SUPPORT_H_
