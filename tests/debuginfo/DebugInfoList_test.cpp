// DebugInfoList with the image library's test double: identifiers and
// stamping, pointer stability, all-or-nothing merge, and the rules for
// recording section addresses.
#include <gtest/gtest.h>

#include <vector>

#include "double/elf_double.h"
#include "kelo/DebugInfoList.h"

namespace {

using elf_double::control;
using kelo_debuginfo::DebugInfoList;
using kelo_elf::DebugInfoID;
using kelo_elf::ELF;

class ListTest : public ::testing::Test {
 protected:
  void SetUp() override { elf_double::reset(); }
  void TearDown() override {
    // Every image made by a test is gone once the test's objects are.
    EXPECT_EQ(control().liveImplementations, 0);
  }
};

DebugInfoID id1(uint32_t number) { return DebugInfoID(1, number & 0xFFFF, number >> 16); }

TEST_F(ListTest, AddFilesStampsAndKeepsPointersAcrossGrowth) {
  DebugInfoList list;
  // Identifiers that differ in any one field are distinct entries.
  const DebugInfoID ids[] = {{0, 5, 1}, {1, 5, 1}, {1, 6, 1}, {1, 5, 2}, {200, 5, 1}};
  std::vector<ELF*> stored;
  for (const DebugInfoID& id : ids) stored.push_back(list.add(id, elf_double::image({".text"})));
  for (uint32_t n = 0; n < 2000; ++n) list.add(id1(n * 65537u), elf_double::image());
  EXPECT_EQ(list.entries.size(), 2005u);
  EXPECT_EQ(control().liveImplementations, 2005) << "images are moved in, never copied";
  for (size_t i = 0; i < stored.size(); ++i) {
    EXPECT_EQ(list.find(ids[i]), stored[i]);
    EXPECT_EQ(stored[i]->debugInfoID, ids[i]);
    EXPECT_TRUE(list.entries.at(ids[i]).sectionAddrs.empty());
  }
  EXPECT_EQ(list.find({2, 5, 1}), nullptr);
}

TEST_F(ListTest, AddUnderAFiledIdentifierLeavesListAndImageAlone) {
  DebugInfoList list;
  ELF* first = list.add(id1(7), elf_double::image({".first"}));
  for (bool stamped : {true, false}) {
    ELF second = elf_double::image({".second"});
    if (stamped) second.debugInfoID = DebugInfoID(0, 99, 0);
    EXPECT_EQ(list.add(id1(7), std::move(second)), first);
    // Not moved from, not stamped: the caller still has its image.
    EXPECT_TRUE(second.hasSection(".second"));
    EXPECT_EQ(second.debugInfoID, stamped ? absl::optional<DebugInfoID>(DebugInfoID(0, 99, 0)) : absl::nullopt);
  }
  EXPECT_EQ(list.entries.size(), 1u);
  EXPECT_TRUE(list.find(id1(7))->hasSection(".first"));
}

TEST_F(ListTest, MergeMovesEverythingOrNothing) {
  DebugInfoList dst, src;
  std::vector<ELF*> dstPtrs, srcPtrs;
  for (uint32_t n = 0; n < 50; ++n) dstPtrs.push_back(dst.add(id1(n), elf_double::image()));
  for (uint32_t n = 100; n < 150; ++n) srcPtrs.push_back(src.add(id1(n), elf_double::image({".a"})));
  src.add(id1(25), elf_double::image());  // the one collision
  EXPECT_FALSE(dst.merge(src));
  EXPECT_FALSE(dst.merge(dst));
  EXPECT_EQ(dst.entries.size(), 50u);
  EXPECT_EQ(src.entries.size(), 51u);
  for (uint32_t n = 0; n < 50; ++n) EXPECT_EQ(dst.find(id1(n)), dstPtrs[n]);
  for (uint32_t n = 100; n < 150; ++n) EXPECT_EQ(src.find(id1(n)), srcPtrs[n - 100]);

  src.entries.erase(id1(25));
  src.setSectionAddr(id1(100), ".a", 0x1000);
  src.find(id1(101))->debugInfoID = DebugInfoID(9, 9, 9);  // merge must not restamp
  ASSERT_TRUE(dst.merge(src));
  EXPECT_TRUE(src.entries.empty());
  EXPECT_EQ(dst.entries.size(), 100u);
  EXPECT_EQ(dst.find(id1(1)), dstPtrs[1]);
  EXPECT_EQ(dst.getSectionAddr(id1(100), ".a"), 0x1000u);
  EXPECT_EQ(dst.find(id1(101))->debugInfoID, DebugInfoID(9, 9, 9));
}

TEST_F(ListTest, SectionAddressesForTheImagesNamesAndTwoOthers) {
  DebugInfoList list;
  list.add(id1(1), elf_double::image({".text", ".kelo.overlay"}));
  list.setSectionAddr(id1(1), ".text", 0x80001000);
  list.setSectionAddr(id1(1), ".kelo.overlay", 0x2000);
  list.setSectionAddr(id1(1), ".kelo.overlay", 0x3000);  // the second address wins
  list.setSectionAddr(id1(1), ".constant", 0x10);
  list.setSectionAddr(id1(1), ".local", 0x20);
  EXPECT_EQ(list.getSectionAddr(id1(1), ".text"), 0x80001000u);
  EXPECT_EQ(list.getSectionAddr(id1(1), ".kelo.overlay"), 0x3000u);
  EXPECT_EQ(list.getSectionAddr(id1(1), ".constant"), 0x10u);
  EXPECT_EQ(list.getSectionAddr(id1(1), ".local"), 0x20u);
  list.setSectionAddr(id1(1), ".text", 0);  // a recorded 0 reads like a missing one
  EXPECT_EQ(list.getSectionAddr(id1(1), ".text"), 0u);
  EXPECT_EQ(list.getSectionAddr(id1(2), ".text"), 0u);

  // Anything else is refused, names with embedded NUL bytes included, and
  // an absent identifier creates nothing.
  for (const std::string& name :
       {std::string(".Constant"), std::string(".constan"), std::string(".constants"), std::string("local"),
        std::string(".LOCAL"), std::string(".tex"), std::string(""), std::string(".local\0x", 8)}) {
    list.setSectionAddr(id1(1), name, 0x30);
    EXPECT_EQ(list.getSectionAddr(id1(1), name), 0u) << '"' << name << '"';
  }
  list.setSectionAddr(id1(2), ".constant", 0x10);
  EXPECT_EQ(list.entries.size(), 1u);
  EXPECT_EQ(list.entries.begin()->second.sectionAddrs.size(), 4u);
}

}  // namespace
