// The symbolization library on the example objects: the address map with
// its overlaps, answers from relocated DWARF (ELF64 with RELA, ELF32 with
// REL), answers that depend only on the section holding the address, linked
// files at their own addresses, variables, lazy loading with a cache bounded
// in bytes, the limits on hostile stores, and the C interface. Agreement
// with binutils and LLVM on real programs is the comparison scripts'.
#include <fcntl.h>
#include <gelf.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"
#include "kelo/store.hpp"
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

TEST(AddressMap, EqualStartsAnswerFromTheFirstAndOverlapsAreCountedNotAllListed) {
  DebugInfoList list;
  // util.o: .kelo.overlay (0x10 bytes) sorts before .text (0x13) at one start.
  list.add(kMain, example("util.o"));
  list.setSectionAddr(kMain, ".text", 0x1000);
  list.setSectionAddr(kMain, ".kelo.overlay", 0x1000);
  for (uint16_t i = 10; i < 30; ++i) {
    list.add(DebugInfoID(1, i, 0), example("util.o"));
    list.setSectionAddr(DebugInfoID(1, i, 0), ".text", 0x8000);
  }
  Symbolizer symbolizer(list);
  EXPECT_EQ(symbolizer.rangeAt(0x1000)->section, ".kelo.overlay");
  EXPECT_EQ(symbolizer.rangeAt(0x100f)->section, ".kelo.overlay");
  EXPECT_EQ(symbolizer.rangeAt(0x1010)->section, ".text");
  EXPECT_EQ(symbolizer.resolve(0x1000)->section, ".kelo.overlay");

  const std::vector<Range>& ranges = symbolizer.ranges();
  ASSERT_EQ(ranges.size(), 22u);
  EXPECT_EQ(ranges[0].overlapCount, 1u);
  EXPECT_EQ(ranges[0].overlaps, std::vector<size_t>{1});
  EXPECT_EQ(symbolizer.rangeAt(0x8000), &ranges[2]);
  for (size_t i = 2; i < ranges.size(); ++i) {
    EXPECT_EQ(ranges[i].overlapCount, 19u);
    // The first few others, in order.
    std::vector<size_t> first;
    for (size_t j = 2; first.size() < kelo_symbolize::kListedOverlaps; ++j) {
      if (j != i) first.push_back(j);
    }
    EXPECT_EQ(ranges[i].overlaps, first) << i;
  }
}

// Every frame of an answer, as one text to compare.
std::string answerText(const absl::optional<Location>& loc) {
  if (!loc) return "none";
  std::string text = loc->section + "+" + std::to_string(loc->offset) + ":";
  for (const kelo_symbolize::Frame& f : loc->frames) {
    text += " " + f.function + "@" + f.file + ":" + std::to_string(f.line) + ":" + std::to_string(f.column) + "/" +
            std::to_string(f.discriminator);
  }
  return text;
}

kelo_elf::ELF loadBuilt(const std::string& name) {
  absl::optional<kelo_elf::ELF> elf =
      kelo_elf::ELF::load(kelo_test::readFile(std::string(KELO_SYMBOLIZE_TEST_DIR) + "/" + name));
  if (!elf) throw std::runtime_error("cannot load " + name);
  return std::move(*elf);
}

TEST(Resolve, AnswersDependOnlyOnTheSectionHoldingTheAddress) {
  // calc.c with a section per function. Each section answers for its bytes
  // the same whether it is placed alone (at a low address, where a sloppy
  // relocation would put the unplaced others), with every other section
  // apart, or with them all over each other: no line or function comes from
  // another section's rows or ranges.
  const kelo_elf::ELF image = loadBuilt("calc_sections.o");
  std::vector<std::pair<std::string, uint64_t>> code;
  for (const kelo_elf::SectionHeader& s : image.sectionHeaders()) {
    if (s.name.compare(0, 6, ".text.") == 0 && s.size != 0) code.emplace_back(s.name, s.size);
  }
  ASSERT_GE(code.size(), 3u);

  std::map<std::pair<std::string, uint64_t>, std::string> alone;
  for (const auto& section : code) {
    DebugInfoList list;
    list.add(kMain, loadBuilt("calc_sections.o"));
    list.setSectionAddr(kMain, section.first, 0x40);
    Symbolizer symbolizer(list);
    for (uint64_t offset = 0; offset < section.second; ++offset) {
      const absl::optional<Location> loc = symbolizer.resolve(0x40 + offset);
      alone[{section.first, offset}] = answerText(loc);
    }
  }
  // Some bytes have lines, some (the start of a cold part) may have none.
  EXPECT_NE(alone.begin()->second.find(".c:"), std::string::npos) << alone.begin()->second;

  for (uint32_t step : {0x1000u, 0x10u, 0u}) {
    DebugInfoList list;
    list.add(kMain, loadBuilt("calc_sections.o"));
    for (size_t i = 0; i < code.size(); ++i) {
      list.setSectionAddr(kMain, code[i].first, 0x200000 + step * static_cast<uint32_t>(i));
    }
    Symbolizer symbolizer(list);
    const uint64_t end = 0x200000 + step * code.size() + 0x1000;
    for (uint64_t address = 0x200000; address < end; ++address) {
      const absl::optional<Location> loc = symbolizer.resolve(address);
      if (!loc) continue;
      EXPECT_EQ(answerText(loc), alone.at({loc->section, loc->offset})) << "step " << step;
    }
  }
}

TEST(Resolve, LinkedFilesAreReadAtTheirOwnAddresses) {
  // A shared object stored whole, its .text recorded far from where the
  // file puts it: the DWARF is read at the file's addresses, shifted.
  const kelo_elf::ELF image = loadBuilt("libcalc.so");
  uint64_t textAddr = 0;
  for (const kelo_elf::SectionHeader& s : image.sectionHeaders()) {
    if (s.name == ".text") textAddr = s.addr;
  }
  // crunch's value, from the symbol table.
  elf_version(EV_CURRENT);
  std::vector<unsigned char> bytes(image.bytes().begin(), image.bytes().end());
  Elf* elf = elf_memory(reinterpret_cast<char*>(bytes.data()), bytes.size());
  ASSERT_NE(elf, nullptr);
  uint64_t crunch = 0;
  for (Elf_Scn* scn = elf_nextscn(elf, nullptr); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    GElf_Shdr shdr;
    if (gelf_getshdr(scn, &shdr) == nullptr || shdr.sh_type != SHT_SYMTAB) continue;
    Elf_Data* data = elf_getdata(scn, nullptr);
    for (size_t i = 0; data != nullptr && i < shdr.sh_size / shdr.sh_entsize; ++i) {
      GElf_Sym sym;
      const char* name =
          gelf_getsym(data, static_cast<int>(i), &sym) ? elf_strptr(elf, shdr.sh_link, sym.st_name) : nullptr;
      if (name != nullptr && std::string(name) == "crunch") crunch = sym.st_value;
    }
  }
  elf_end(elf);
  ASSERT_NE(crunch, 0u);
  ASSERT_GT(crunch, textAddr);

  DebugInfoList list;
  list.add(kMain, loadBuilt("libcalc.so"));
  list.setSectionAddr(kMain, ".text", 0x40000000);
  Symbolizer symbolizer(list);
  const absl::optional<Location> loc = symbolizer.resolve(0x40000000 + (crunch - textAddr) + 1);
  ASSERT_TRUE(loc);
  ASSERT_FALSE(loc->frames.empty());
  EXPECT_EQ(loc->frames.back().function, "crunch");
  EXPECT_TRUE(endsWith(loc->frames.back().file, "/data/calc.c")) << loc->frames.back().file;
  EXPECT_GT(loc->frames.back().line, 0u);
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

  // A variable's first byte gives its declaration; its other bytes only the
  // data object's symbol, with no line. (Only for locations given as
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
  const absl::optional<Location> inside = symbolizer.resolve(0x3011);
  ASSERT_EQ(inside->frames.size(), 1u);
  EXPECT_EQ(inside->frames[0].function, "counter");
  EXPECT_EQ(inside->frames[0].line, 0u);
  EXPECT_TRUE(inside->variable.empty());
  EXPECT_EQ(symbolizer.resolve(0x1040)->variable, "overlay_table");
  EXPECT_EQ(symbolizer.resolve(0x2000)->variable, "scratch");
  EXPECT_FALSE(symbolizer.resolve(0x4000));  // an empty section takes no address
}

// Writes `list` to the file `name`.
bool writeStore(DebugInfoList& list, const std::string& name) {
  const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool written = kelo_store::writeList(list, fd);
  return close(fd) == 0 && written;
}

// A view gives the same map and answers as the list it was written from,
// and an entry whose image does not load is left out and reported.
TEST(Resolve, AViewAnswersAsItsListAndLeavesOutImagesThatDoNotLoad) {
  DebugInfoList list = exampleList();
  list.add(DebugInfoID(1, 9, 0), example("extra.o"));  // no address: not loaded
  kelo_test::TempDir dir;
  const std::string name = dir.file("list.kdbg");
  ASSERT_TRUE(writeStore(list, name));
  absl::optional<kelo_store::View> view = kelo_store::View::open(name);
  ASSERT_TRUE(view.has_value());
  const Symbolizer fromList(list);
  Symbolizer fromView(*view);
  view.reset();  // the Symbolizer keeps what it needs
  ASSERT_EQ(fromView.ranges().size(), fromList.ranges().size());
  for (size_t i = 0; i < fromList.ranges().size(); ++i) {
    EXPECT_EQ(fromView.ranges()[i].id, fromList.ranges()[i].id);
    EXPECT_EQ(fromView.ranges()[i].section, fromList.ranges()[i].section);
    EXPECT_EQ(fromView.ranges()[i].start, fromList.ranges()[i].start);
  }
  absl::optional<Location> loc = fromView.resolve(0x300f);
  ASSERT_TRUE(loc);
  EXPECT_EQ(loc->frames.at(0).function, "util_scale");

  // An entry whose image is not an image.
  const std::vector<unsigned char> junk = {'J', 'U', 'N', 'K'};
  const std::vector<unsigned char> bytes = kelo_test::readFile(name);
  const std::string bad = dir.file("bad.kdbg");
  {
    // The header of the file above, then one entry (1:5) whose 4-byte
    // image is junk, with .text at 0x1000.
    std::vector<unsigned char> file(bytes.begin(), bytes.begin() + 12);
    const unsigned char one[] = {1, 0, 0, 0, 0, 0, 0, 0, 1, 5, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0};
    file.insert(file.end(), one, one + sizeof one);
    file.insert(file.end(), junk.begin(), junk.end());
    const unsigned char section[] = {1, 0, 0, 0,   0,   0,   0,   0,   5, 0,    0, 0, 0,
                                     0, 0, 0, '.', 't', 'e', 'x', 't', 0, 0x10, 0, 0};
    file.insert(file.end(), section, section + sizeof section);
    ASSERT_TRUE(kelo_test::writeFile(bad, file));
  }
  absl::optional<kelo_store::View> badView = kelo_store::View::open(bad);
  ASSERT_TRUE(badView.has_value());
  std::vector<std::string> told;
  kelo_symbolize::Options options;
  options.report = [&told](const DebugInfoID& id, const std::string& why) {
    told.push_back(std::to_string(id.number()) + ": " + why);
  };
  const Symbolizer none(*badView, options);
  EXPECT_TRUE(none.ranges().empty());
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0], "5: its image does not load; left out");
}

// A Symbolizer sharing a view reads images only when an address reaches
// them, drops them with the rest of an entry when the cache needs room, and
// answers as the list does, however often an entry comes and goes.
TEST(Resolve, ASharedViewReadsImagesOnDemandAndAnswersAfterEviction) {
  DebugInfoList list = exampleList();
  kelo_test::TempDir dir;
  const std::string name = dir.file("list.kdbg");
  ASSERT_TRUE(writeStore(list, name));
  absl::optional<kelo_store::View> view = kelo_store::View::open(name);
  ASSERT_TRUE(view.has_value());
  kelo_symbolize::Options tiny;
  tiny.cacheBytes = 1;  // room for the entry that answered last only
  Symbolizer fromList(list);
  Symbolizer lazy(std::make_shared<const kelo_store::View>(std::move(*view)), tiny);
  EXPECT_EQ(lazy.loadedEntries(), 0u);
  ASSERT_EQ(lazy.ranges().size(), fromList.ranges().size());
  ASSERT_GE(lazy.ranges().size(), 2u);
  for (int round = 0; round < 2; ++round) {
    for (const kelo_symbolize::Range& r : fromList.ranges()) {
      for (uint64_t address : {r.start, r.end - 1}) {
        const absl::optional<Location> want = fromList.resolve(address);
        const absl::optional<Location> got = lazy.resolve(address);
        ASSERT_EQ(want.has_value(), got.has_value()) << std::hex << address;
        if (!want) continue;
        EXPECT_EQ(got->id, want->id);
        ASSERT_EQ(got->frames.size(), want->frames.size()) << std::hex << address;
        for (size_t i = 0; i < want->frames.size(); ++i) {
          EXPECT_EQ(got->frames[i].function, want->frames[i].function);
          EXPECT_EQ(got->frames[i].file, want->frames[i].file);
          EXPECT_EQ(got->frames[i].line, want->frames[i].line);
        }
        EXPECT_EQ(lazy.loadedEntries(), 1u);
      }
    }
  }

  // A bound lowered later takes effect with the next answer.
  for (const kelo_symbolize::Range& r : fromList.ranges()) fromList.resolve(r.start);
  ASSERT_GE(fromList.loadedEntries(), 2u);
  fromList.setCacheBytes(1);
  fromList.resolve(fromList.ranges().front().start);
  EXPECT_EQ(fromList.loadedEntries(), 1u);
}

TEST(Resolve, AReusedLocationHoldsOnlyTheNewAnswer) {
  const DebugInfoList list = exampleList();
  Symbolizer symbolizer(list);
  Location reused;
  // A variable, code with a longer chain, nothing, then the rest, in turn.
  for (uint64_t address : {0x3010u, 0x1000u, 0x3011u, 0x5000u, 0x3004u, 0x1040u, 0x100au, 0x2000u}) {
    const absl::optional<Location> fresh = symbolizer.resolve(address);
    EXPECT_EQ(symbolizer.resolve(address, reused), fresh.has_value());
    if (!fresh) {
      EXPECT_TRUE(reused.frames.empty());
      continue;
    }
    EXPECT_EQ(answerText(reused), answerText(fresh)) << std::hex << address;
    EXPECT_EQ(reused.variable, fresh->variable) << std::hex << address;
    EXPECT_EQ(reused.id, fresh->id);
  }
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
  for (uint16_t i : {7, 7, 500, 999, 3, 250, 7, 500}) {
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

namespace {

DebugInfoList readCorpus(const std::string& name) {
  keloDbgList handle = keloDbgRead((std::string(KELO_FUZZ_CORPUS_DIR) + "/" + name).c_str());
  if (handle == nullptr) throw std::runtime_error("cannot read " + name);
  DebugInfoList list = std::move(*reinterpret_cast<DebugInfoList*>(handle));
  keloDbgFree(handle);
  return list;
}

TEST(HostileStores, CompressedSectionsPastTheLimitAreRefusedAndReported) {
  // .debug_str inflates to 8 MiB, far more than the limit for an 11 KB
  // image: refused before anything is inflated, once, with the reason; the
  // symbols still answer.
  const DebugInfoList list = readCorpus("hostile_zlib_bomb.kdbg");
  std::vector<std::string> reports;
  kelo_symbolize::Options options;
  options.report = [&reports](const DebugInfoID& id, const std::string& why) {
    reports.push_back(std::to_string(id.number()) + ": " + why);
  };
  Symbolizer symbolizer(list, options);
  ASSERT_FALSE(symbolizer.ranges().empty());
  for (int round = 0; round < 2; ++round) {
    const absl::optional<Location> loc = symbolizer.resolve(symbolizer.ranges()[0].start);
    ASSERT_TRUE(loc);
    ASSERT_EQ(loc->frames.size(), 1u);
    EXPECT_FALSE(loc->frames[0].function.empty());
    EXPECT_EQ(loc->frames[0].line, 0u);
  }
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_NE(reports[0].find("inflate"), std::string::npos) << reports[0];
  EXPECT_LT(symbolizer.loadedBytes(), 1u << 20);
}

TEST(HostileStores, StringsStopAtTheirSectionsEnd) {
  // The unit's file name is the last string of .debug_line_str, without its
  // NUL: it ends where the section does (libdw reads it whole otherwise).
  const DebugInfoList list = readCorpus("hostile_line_str_tail.kdbg");
  Symbolizer symbolizer(list);
  const absl::optional<Location> loc = symbolizer.resolve(symbolizer.ranges().at(0).start);
  ASSERT_TRUE(loc);
  ASSERT_FALSE(loc->frames.empty());
  EXPECT_EQ(loc->frames[0].file, "/src/tail_line.");
}

TEST(HostileStores, NamesAreDemangledOnlyWhenAskedAndWithinTheBound) {
  // A 1 KB name that would demangle to hundreds of megabytes stays mangled.
  {
    const DebugInfoList list = readCorpus("hostile_deep_mangled.kdbg");
    Symbolizer symbolizer(list);
    const absl::optional<Location> loc = symbolizer.resolve(symbolizer.ranges().at(0).start);
    ASSERT_TRUE(loc && !loc->frames.empty());
    EXPECT_EQ(loc->frames[0].function.compare(0, 2, "_Z"), 0);
    EXPECT_EQ(loc->frames[0].demangled, loc->frames[0].function);
  }
  // An ordinary C++ object: demangled when asked, left alone when not.
  const DebugInfoList list = readCorpus("cpp_gcc_dwarf5.kdbg");
  for (bool demangle : {true, false}) {
    kelo_symbolize::Options options;
    options.demangle = demangle;
    Symbolizer symbolizer(list, options);
    size_t mangled = 0, demangled = 0;
    for (const Range& r : symbolizer.ranges()) {
      for (uint64_t a = r.start; a < r.end; a += 4) {
        const absl::optional<Location> loc = symbolizer.resolve(a);
        for (const kelo_symbolize::Frame& f : loc->frames) {
          if (f.function.compare(0, 2, "_Z") != 0) continue;
          ++mangled;
          if (!demangle) {
            EXPECT_TRUE(f.demangled.empty());
          }
          if (!f.demangled.empty() && f.demangled != f.function) ++demangled;
          if (demangle) {
            EXPECT_EQ(f.demangled.find("_Z"), std::string::npos) << f.demangled;
          }
        }
      }
    }
    EXPECT_GT(mangled, 0u);
    EXPECT_EQ(demangled, demangle ? mangled : 0u);
  }
}

}  // namespace
