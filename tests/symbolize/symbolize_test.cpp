// The symbolization library on the example objects: the address map with
// its overlaps, answers from relocated DWARF (ELF64 with RELA, ELF32 with
// REL), variables, lazy loading with a bounded cache, and the C interface.
// Agreement with binutils on a real linked program is compare_addr2line.sh's.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"
#include "kelo/symbolize.h"
#include "kelo/symbolize.hpp"
#include "support/files.h"

namespace {

using kelo_debuginfo::DebugInfoList;
using kelo_elf::DebugInfoID;
using kelo_symbolize::Location;
using kelo_symbolize::Range;
using kelo_symbolize::Symbolizer;

kelo_elf::ELF example(const std::string& name) {
  absl::optional<kelo_elf::ELF> elf = kelo_elf::ELF::load(kelo_test::example(name));
  if (!elf) throw std::runtime_error("cannot load example " + name);
  return std::move(*elf);
}

bool endsWith(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

const DebugInfoID kMain(1, 1, 0), kUtil(1, 2, 0), kUtilAgain(0, 3, 0);

// main.o: .text 0x4f bytes, .data 4, .bss 0x40. util.o: .text 0x13,
// .kelo.overlay 0x10, .data empty. Each of the first two overlaps the other
// once.
DebugInfoList exampleList() {
  DebugInfoList list;
  list.add(kMain, example("main.o"));
  list.setSectionAddr(kMain, ".text", 0x1000);
  list.setSectionAddr(kMain, ".data", 0x3010);
  list.setSectionAddr(kMain, ".bss", 0x2000);
  list.setSectionAddr(kMain, ".debug_info", 0x5000);  // not allocated
  list.setSectionAddr(kMain, ".constant", 0x9000);    // names no section
  list.add(kUtil, example("util.o"));
  list.setSectionAddr(kUtil, ".text", 0x3000);
  list.setSectionAddr(kUtil, ".kelo.overlay", 0x1040);
  list.setSectionAddr(kUtil, ".data", 0x4000);  // empty
  list.add(kUtilAgain, example("util.o"));
  list.setSectionAddr(kUtilAgain, ".text", 0x7000);
  list.setSectionAddr(kUtilAgain, ".kelo.overlay", 0x7100);
  return list;
}

TEST(AddressMap, PlacesAllocatedSectionsSortedAndReportsOverlaps) {
  const DebugInfoList list = exampleList();
  const Symbolizer symbolizer(list);
  // Code sizes depend on the compiler: .text ends are checked apart.
  using Row = std::tuple<uint32_t, std::string, uint64_t, uint64_t, std::vector<size_t>>;
  std::vector<Row> rows;
  for (const Range& r : symbolizer.ranges()) {
    rows.emplace_back(r.id.number(), r.section, r.start, r.section == ".text" ? 0 : r.end, r.overlaps);
  }
  const std::vector<Row> expected = {
      {1, ".text", 0x1000, 0, {1}},
      {2, ".kelo.overlay", 0x1040, 0x1050, {0}},
      {1, ".bss", 0x2000, 0x2040, {}},
      {2, ".text", 0x3000, 0, {4}},
      {1, ".data", 0x3010, 0x3014, {3}},
      {3, ".text", 0x7000, 0, {}},
      {3, ".kelo.overlay", 0x7100, 0x7110, {}},
  };
  EXPECT_EQ(rows, expected);
  EXPECT_GT(symbolizer.ranges()[0].end, 0x1040u);
  EXPECT_GT(symbolizer.ranges()[3].end, 0x3010u);
  EXPECT_LT(symbolizer.ranges()[3].end, 0x3100u);

  // A range that begins inside another answers for its addresses.
  EXPECT_EQ(symbolizer.rangeAt(0x103f)->section, ".text");
  EXPECT_EQ(symbolizer.rangeAt(0x1040)->section, ".kelo.overlay");
  EXPECT_EQ(symbolizer.rangeAt(0x104f)->section, ".kelo.overlay");
  EXPECT_EQ(symbolizer.rangeAt(0x1050), nullptr);
  EXPECT_EQ(symbolizer.rangeAt(0x203f)->section, ".bss");
  EXPECT_EQ(symbolizer.rangeAt(0x2040), nullptr);
  EXPECT_EQ(symbolizer.rangeAt(0xfff), nullptr);
  EXPECT_EQ(symbolizer.addressBits(), 64u);
}

TEST(Resolve, AnswersFromDwarfRelocatedToTheRecordedAddresses) {
  const DebugInfoList list = exampleList();
  Symbolizer symbolizer(list);

  // The same object stored twice answers at both places.
  for (uint64_t base : {0x3000u, 0x7000u}) {
    absl::optional<Location> loc = symbolizer.resolve(base + 0xf);
    ASSERT_TRUE(loc);
    EXPECT_EQ(loc->section, ".text");
    EXPECT_EQ(loc->offset, 0xfu);
    ASSERT_EQ(loc->frames.size(), 1u);
    EXPECT_EQ(loc->frames[0].function, "util_scale");
    EXPECT_TRUE(endsWith(loc->frames[0].file, "/examples/util.c")) << loc->frames[0].file;
    EXPECT_EQ(loc->frames[0].line, 8u);
  }
  EXPECT_EQ(symbolizer.resolve(0x3000)->id, kUtil);
  EXPECT_EQ(symbolizer.resolve(0x7000)->id, kUtilAgain);

  absl::optional<Location> main = symbolizer.resolve(0x1000);
  ASSERT_TRUE(main);
  EXPECT_EQ(main->frames.at(0).function, "main");
  EXPECT_EQ(main->frames.at(0).line, 11u);

  // A variable's first byte gives its declaration; its other bytes, and
  // data nobody declared, give nothing. (Only for locations given as
  // DW_OP_addr, as in binutils: clang's DWARF 5 uses DW_OP_addrx.)
  absl::optional<Location> counter = symbolizer.resolve(0x3010);
  ASSERT_TRUE(counter);
  EXPECT_EQ(counter->id, kMain);
#if defined(__clang__)
  GTEST_SKIP() << "the example objects are built by clang";
#endif
  EXPECT_EQ(counter->variable, "counter");
  ASSERT_EQ(counter->frames.size(), 1u);
  EXPECT_EQ(counter->frames[0].function, "");
  EXPECT_TRUE(endsWith(counter->frames[0].file, "/examples/main.c"));
  EXPECT_EQ(counter->frames[0].line, 8u);
  EXPECT_TRUE(symbolizer.resolve(0x3011)->frames.empty());
  EXPECT_EQ(symbolizer.resolve(0x1040)->variable, "overlay_table");
  EXPECT_EQ(symbolizer.resolve(0x2000)->variable, "scratch");
  EXPECT_FALSE(symbolizer.resolve(0x4000));  // an empty section takes no address
}

TEST(Resolve, RelocatesElf32ObjectsToo) {
  DebugInfoList list;
  list.add(kUtil, example("util32.o"));
  list.setSectionAddr(kUtil, ".text", 0x80001000);
  Symbolizer symbolizer(list);
  EXPECT_EQ(symbolizer.addressBits(), 32u);
  absl::optional<Location> loc = symbolizer.resolve(0x80001014);
  ASSERT_TRUE(loc);
  ASSERT_EQ(loc->frames.size(), 1u);
  EXPECT_EQ(loc->frames[0].function, "util_scale");
  EXPECT_EQ(loc->frames[0].line, 8u);
}

TEST(Resolve, LoadsOnlyTheEntriesHitAndKeepsABoundedCache) {
  DebugInfoList list;
  for (uint16_t i = 0; i < 1000; ++i) {
    list.add(DebugInfoID(1, i, 0), example("util.o"));
    list.setSectionAddr(DebugInfoID(1, i, 0), ".text", 0x100000 + 0x100u * i);
  }
  kelo_symbolize::Options options;
  options.cacheBytes = 1;  // only the entry that answered last stays
  Symbolizer symbolizer(list, options);
  EXPECT_EQ(symbolizer.ranges().size(), 1000u);
  EXPECT_EQ(symbolizer.loadedEntries(), 0u);
  for (uint16_t i : {7, 7, 500, 999, 3, 250, 7}) {
    absl::optional<Location> loc = symbolizer.resolve(0x100000 + 0x100u * i + 2);
    ASSERT_TRUE(loc);
    EXPECT_EQ(loc->id, DebugInfoID(1, i, 0));
    ASSERT_EQ(loc->frames.size(), 1u);
    EXPECT_EQ(loc->frames[0].function, "util_scale");
  }
  EXPECT_EQ(symbolizer.loadedEntries(), 1u);
  EXPECT_GT(symbolizer.loadedBytes(), 0u);
}

TEST(CInterface, ResolvesThroughHandlesAndResultsOutliveTheSymbolizer) {
  EXPECT_EQ(keloSymOpen(nullptr), nullptr);
  EXPECT_EQ(keloSymResolve(nullptr, 0), nullptr);
  EXPECT_EQ(keloSymRangeCount(nullptr), 0u);
  keloSymClose(nullptr);
  keloSymResultFree(nullptr);

  DebugInfoList* list = new DebugInfoList(exampleList());
  keloDbgList handle = reinterpret_cast<keloDbgList>(list);
  keloSym sym = keloSymOpen(handle);
  ASSERT_NE(sym, nullptr);
  ASSERT_EQ(keloSymRangeCount(sym), 7u);
  keloSymRange range;
  ASSERT_TRUE(keloSymGetRange(sym, 1, &range));
  EXPECT_EQ(range.id.kind, 1u);
  EXPECT_EQ(range.id.id, 2u);
  EXPECT_STREQ(range.section, ".kelo.overlay");
  EXPECT_EQ(range.start, 0x1040u);
  EXPECT_EQ(range.overlapCount, 1u);
  uint32_t other = 99;
  EXPECT_TRUE(keloSymGetOverlap(sym, 1, 0, &other));
  EXPECT_EQ(other, 0u);
  EXPECT_FALSE(keloSymGetOverlap(sym, 1, 1, &other));
  EXPECT_FALSE(keloSymGetRange(sym, 7, &range));

  EXPECT_EQ(keloSymResolve(sym, 0x5000), nullptr);
  keloSymResult result = keloSymResolve(sym, 0x3004);
  keloSymClose(sym);
  ASSERT_NE(result, nullptr);
  keloDbgID id;
  const char* section = nullptr;
  uint64_t offset = 0;
  ASSERT_TRUE(keloSymResultPlace(result, &id, &section, &offset));
  EXPECT_EQ(id.id, 2u);
  EXPECT_STREQ(section, ".text");
  EXPECT_EQ(offset, 4u);
  ASSERT_EQ(keloSymResultFrameCount(result), 1u);
  keloSymFrame frame;
  ASSERT_TRUE(keloSymResultFrame(result, 0, &frame));
  EXPECT_STREQ(frame.function, "util_scale");
  EXPECT_STREQ(frame.demangled, "util_scale");
  EXPECT_EQ(frame.line, 8u);
  EXPECT_FALSE(keloSymResultFrame(result, 1, &frame));
  keloSymResultFree(result);
  keloDbgFree(handle);
}

}  // namespace
