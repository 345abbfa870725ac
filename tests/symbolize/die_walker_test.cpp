// The symbolizer's DIE walker against libdw's own walk, on the real objects
// of the fuzz corpus (C and C++, GCC and clang, DWARF 4 and 5, compressed
// sections, 32-bit, a linked shared object): the same DIEs in the same
// order and at the same depth, with or without their children, every
// attribute the walker locates where libdw finds it, and names and
// declarations found along references where libdw finds them.
#include "die_walker.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <gtest/gtest.h>
#include <libelf.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"

namespace {

using kelo_debuginfo::DebugInfoList;
using kelo_symbolize::internal::AbbrevTables;
using kelo_symbolize::internal::DieWalker;

// What a walk reports of one DIE.
struct Seen {
  Dwarf_Off offset;
  int tag;
  size_t depth;
  bool children;
  bool operator==(const Seen& o) const {
    return offset == o.offset && tag == o.tag && depth == o.depth && children == o.children;
  }
};

std::ostream& operator<<(std::ostream& os, const Seen& s) {
  return os << "DIE 0x" << std::hex << s.offset << std::dec << " tag 0x" << std::hex << s.tag << std::dec << " depth "
            << s.depth << (s.children ? " with children" : "");
}

// Whether a walk passes over the children of a DIE: those of every third
// DIE that has any, so that both ways are taken at every depth.
bool skips(const Seen& s) { return s.children && s.offset % 3 == 0; }

// libdw's walk below the unit's DIE, depth first.
std::vector<Seen> libdwWalk(Dwarf_Die& unit, bool skipping) {
  std::vector<Seen> seen;
  Dwarf_Die die;
  if (dwarf_child(&unit, &die) != 0) return seen;
  std::vector<Dwarf_Die> stack;
  for (;;) {
    const Seen s{dwarf_dieoffset(&die), dwarf_tag(&die), stack.size() + 1, dwarf_haschildren(&die) != 0};
    seen.push_back(s);
    Dwarf_Die next;
    if (s.children && !(skipping && skips(s)) && dwarf_child(&die, &next) == 0) {
      stack.push_back(die);
      die = next;
      continue;
    }
    for (;;) {
      if (dwarf_siblingof(&die, &next) == 0) {
        die = next;
        break;
      }
      if (stack.empty()) return seen;
      die = stack.back();
      stack.pop_back();
    }
  }
}

const std::vector<std::pair<DieWalker::Attr, unsigned>> kAttributes = {
    {DieWalker::kLowPc, DW_AT_low_pc},
    {DieWalker::kHighPc, DW_AT_high_pc},
    {DieWalker::kRanges, DW_AT_ranges},
    {DieWalker::kName, DW_AT_name},
    {DieWalker::kLinkageName, DW_AT_linkage_name},
    {DieWalker::kMipsLinkageName, DW_AT_MIPS_linkage_name},
    {DieWalker::kAbstractOrigin, DW_AT_abstract_origin},
    {DieWalker::kSpecification, DW_AT_specification},
    {DieWalker::kDeclFile, DW_AT_decl_file},
    {DieWalker::kDeclLine, DW_AT_decl_line},
    {DieWalker::kCallFile, DW_AT_call_file},
    {DieWalker::kCallLine, DW_AT_call_line},
    {DieWalker::kCallColumn, DW_AT_call_column},
    {DieWalker::kDiscriminator, 0x2136},
    {DieWalker::kLocation, DW_AT_location},
    {DieWalker::kSibling, DW_AT_sibling},
};

// Those also looked for along DW_AT_abstract_origin and DW_AT_specification.
const std::vector<std::pair<DieWalker::Attr, unsigned>> kFollowed = {
    {DieWalker::kName, DW_AT_name},
    {DieWalker::kLinkageName, DW_AT_linkage_name},
    {DieWalker::kDeclFile, DW_AT_decl_file},
    {DieWalker::kDeclLine, DW_AT_decl_line},
};

// Counts of what one image's units held, to show that the objects hold
// what the comparison means to cover.
struct Covered {
  size_t units = 0, dies = 0, located = 0, implicit = 0, skipped = 0, followed = 0;
};

void compareImage(const std::string& what, absl::Span<const unsigned char> bytes, Covered& covered) {
  std::vector<unsigned char> copy(bytes.begin(), bytes.end());
  Elf* elf = elf_memory(reinterpret_cast<char*>(copy.data()), copy.size());
  ASSERT_NE(elf, nullptr) << what;
  Dwarf* dwarf = dwarf_begin_elf(elf, DWARF_C_READ, nullptr);
  if (dwarf == nullptr) {
    elf_end(elf);
    return;  // no DWARF in this image
  }
  const int tags[] = {DW_TAG_subprogram, DW_TAG_inlined_subroutine, DW_TAG_variable, DW_TAG_formal_parameter};
  AbbrevTables tables(elf, {tags[0], tags[1], tags[2], tags[3]});
  Dwarf_CU* cu = nullptr;
  Dwarf_Die unit;
  uint8_t unitType = 0;
  while (dwarf_get_units(dwarf, cu, &cu, nullptr, &unitType, &unit, nullptr) == 0) {
    ++covered.units;
    for (bool skipping : {false, true}) {
      const std::vector<Seen> expected = libdwWalk(unit, skipping);
      std::vector<Seen> walked;
      DieWalker walker(dwarf, unit, tables);
      while (walker.next()) {
        Dwarf_Die die = walker.die();
        const Seen s{dwarf_dieoffset(&die), walker.tag(), walker.depth(), walker.hasChildren()};
        walked.push_back(s);
        if (skipping && skips(s)) {
          walker.skipChildren();
          ++covered.skipped;
        }
        if (skipping) continue;
        ++covered.dies;
        if (std::find(std::begin(tags), std::end(tags), s.tag) == std::end(tags)) continue;
        ++covered.located;
        for (const auto& a : kAttributes) {
          Dwarf_Attribute theirs, ours;
          const bool found = dwarf_attr(&die, a.second, &theirs) != nullptr;
          ASSERT_EQ(walker.has(a.first), found) << what << ": " << s << ", attribute 0x" << std::hex << a.second;
          if (!found) continue;
          if (theirs.form == DW_FORM_implicit_const) {
            ++covered.implicit;
            Dwarf_Word value = 0;
            ASSERT_EQ(dwarf_formudata(&theirs, &value), 0);
            EXPECT_EQ(walker.udata(a.first), value) << what << ": " << s;
            EXPECT_FALSE(walker.attribute(a.first, &ours));
            continue;
          }
          ASSERT_TRUE(walker.attribute(a.first, &ours)) << what << ": " << s;
          EXPECT_EQ(ours.form, theirs.form) << what << ": " << s << ", attribute 0x" << std::hex << a.second;
          EXPECT_EQ(ours.valp, theirs.valp) << what << ": " << s << ", attribute 0x" << std::hex << a.second;
        }
        // Names and declarations along the references, gathered at once,
        // where libdw finds each of them.
        uint32_t wanted = 0;
        for (const auto& a : kFollowed) wanted |= DieWalker::bit(a.first);
        DieWalker gathered, scratch;
        const DieWalker* at = nullptr;
        if (!walker.gatherAlongOrigins(wanted, gathered, scratch, &at)) continue;
        for (const auto& a : kFollowed) {
          Dwarf_Attribute theirs, ours;
          const bool found = dwarf_attr_integrate(&die, a.second, &theirs) != nullptr;
          ASSERT_EQ(at->has(a.first), found) << what << ": " << s << ", attribute 0x" << std::hex << a.second;
          if (!found) continue;
          if (!walker.has(a.first)) ++covered.followed;
          if (theirs.form == DW_FORM_implicit_const) {
            Dwarf_Word value = 0;
            ASSERT_EQ(dwarf_formudata(&theirs, &value), 0);
            EXPECT_EQ(at->udata(a.first), value) << what << ": " << s;
            continue;
          }
          ASSERT_TRUE(at->attribute(a.first, &ours)) << what << ": " << s;
          EXPECT_EQ(ours.valp, theirs.valp) << what << ": " << s << ", attribute 0x" << std::hex << a.second;
        }
      }
      ASSERT_EQ(walked, expected) << what << (skipping ? ", passing over some children" : "");
    }
  }
  dwarf_end(dwarf);
  elf_end(elf);
}

TEST(DieWalker, WalksAsLibdwWalksOnRealObjects) {
  elf_version(EV_CURRENT);
  Covered covered;
  for (const char* name :
       {"c_clang_dwarf5.kdbg", "c_gcc_dwarf4.kdbg", "c_gcc_dwarf5_gz.kdbg", "c_gcc_m32_dwarf5.kdbg",
        "cpp_clang_dwarf4_gz.kdbg", "cpp_clang_dwarf5.kdbg", "cpp_gcc_dwarf4.kdbg", "cpp_gcc_dwarf5.kdbg",
        "cpp_gcc_dwarf5_gz.kdbg", "cpp_gcc_m32_dwarf4.kdbg", "shared_gcc.kdbg"}) {
    keloDbgList handle = keloDbgRead((std::string(KELO_FUZZ_CORPUS_DIR) + "/" + name).c_str());
    ASSERT_NE(handle, nullptr) << name;
    const auto& list = *reinterpret_cast<DebugInfoList*>(handle);
    for (const auto& entry : list.entries) {
      compareImage(std::string(name) + " entry " + std::to_string(entry.first.number()), entry.second.elf.bytes(),
                   covered);
    }
    keloDbgFree(handle);
  }
  // The objects hold what the comparison is about: units of both
  // compilers' shapes, constants in abbreviations (GCC's DWARF 5) and
  // children passed over.
  EXPECT_GT(covered.units, 10u);
  EXPECT_GT(covered.located, 100u);
  EXPECT_GT(covered.implicit, 0u);
  EXPECT_GT(covered.skipped, 10u);
  EXPECT_GT(covered.followed, 100u);
}

}  // namespace
